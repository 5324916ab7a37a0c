// SPDX-License-Identifier: Apache-2.0
// The addon.
'use strict';

module.exports = require('../zelta_recording.node');
