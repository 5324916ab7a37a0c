// SPDX-License-Identifier: Apache-2.0
// Keeps keys where they belong.
#pragma once

namespace zelta::core_service {

// Overwrites the values of "--channel_key" and "--encrypt_secret" in the process's own arguments,
// which everybody on the machine may read. Before any thread.
void wipe_secret_arguments(int argc, char** argv);

// No privilege is gained from here on, and no core dump of this process is written: it holds keys.
void renounce_privileges();

}  // namespace zelta::core_service
