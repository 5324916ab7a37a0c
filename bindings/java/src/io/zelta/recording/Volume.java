// SPDX-License-Identifier: Apache-2.0
package io.zelta.recording;

/**
 * How loud a user is.
 *
 * @param uid the user
 * @param volume 0 to 255
 */
public record Volume(long uid, int volume) {}
