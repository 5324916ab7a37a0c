// SPDX-License-Identifier: Apache-2.0
// SIGINT, SIGTERM and SIGHUP end the work between two pictures.
#pragma once

namespace zelta::lay {

// What throw_if_stopped() throws.
struct stopped {};

// Once, before any other thread. One that is ignored stays so: nohup wants it that way.
void watch_stop_signals();
// The number of the one that came, 0 before. Any thread.
int stop_signal();
// In whatever may take longer than a moment.
void throw_if_stopped();
// As libavformat asks, whether to let go of a file (AVIOInterruptCB).
int is_stopped(void* unused);

}  // namespace zelta::lay
