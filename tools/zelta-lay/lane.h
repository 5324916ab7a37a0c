// SPDX-License-Identifier: Apache-2.0
// One stream of the film in the making: pictures or sound, encoded or as they came.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>

#include "composer.h"
#include "film_file.h"
#include "session.h"

namespace zelta::lay {

struct nothing_to_copy : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One thread at a time, beside those of other lanes. What it is made with outlives it. Its
// functions throw std::runtime_error.
class lane {
 public:
  virtual ~lane() = default;
  // How far it is, from the film's zero.
  virtual int64_t reached_us() const = 0;
  // A step; false once all is written.
  virtual bool advance() = 0;
};

// Made before the file is started. Pictures are composed and encoded as H.264.
std::unique_ptr<lane> encoded_pictures(const session& of, const picture_plan& plan,
                                       const span& what, film_file& into, problems& found);
// All users' sound, mixed, limited and encoded as AAC of two channels.
std::unique_ptr<lane> encoded_sound(const session& of, const span& what, film_file& into,
                                    problems& found);
// The two below throw nothing_to_copy when none of the user's files has what can be read.
//
// H.264 of one user and one size, as it came, with black pictures where there is none.
std::unique_ptr<lane> copied_pictures(const user& of, const span& what, film_file& into,
                                      problems& found);
// Opus of one user, as it came, with silence where there is none.
std::unique_ptr<lane> copied_sound(const user& of, const span& what, film_file& into,
                                   problems& found);
// Whether all Opus of a user can stand in one stream. Files that can't be read don't count.
bool has_one_opus_head(const user& of);

}  // namespace zelta::lay
