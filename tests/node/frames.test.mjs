// SPDX-License-Identifier: Apache-2.0
// Frames: views over memory that is lent, and how that comes back.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import { test } from 'node:test';
import { setTimeout as passed } from 'node:timers/promises';

import { AudioFrame, VideoFormat, VideoFrame } from 'zelta-recording';
import { FRAMES, collect, firstOf, frames, joined, until } from './support.mjs';

// Takes so many frames, and releases each.
async function pass(recording, count) {
  let seen = 0;
  await firstOf(recording, (event) => {
    if (!event.type.endsWith('Frame')) return false;
    event.release();
    return ++seen === count;
  });
}

test('a picture and its sound are what was generated', async (t) => {
  const recording = joined(t, FRAMES);
  const [picture] = await frames(recording, 1, 'videoFrame');
  assert.ok(picture instanceof VideoFrame);
  assert.equal(picture.format, VideoFormat.YUV);
  assert.deepEqual(picture.planes.map(({ width, height }) => [width, height]), [[160, 90], [80, 45], [80, 45]]);
  for (const { data, stride, width, height } of picture.planes) {
    assert.ok(stride >= width && data.length >= stride * (height - 1) + width);
  }
  const [luma] = picture.planes;
  assert.ok(new Set(luma.data).size > 4, 'a picture of one color');

  const sounds = await frames(recording, 20, 'audioFrame');
  const [sound] = sounds;
  assert.ok(sound instanceof AudioFrame);
  assert.equal(sound.samples.length, sound.byteLength / 2);
  assert.equal(sound.samples.length / sound.channels, sound.sampleRate / 50);
  assert.ok(sounds.some(({ samples }) => samples.some((sample) => Math.abs(sample) > 1000)), 'silence');
  assert.throws(() => sound.planes.length, TypeError);
});

test('coded frames have data alone', async (t) => {
  const recording = joined(t, { decodeVideo: 1, decodeAudio: 1 });
  const [unit] = await frames(recording, 1, 'videoFrame');
  assert.deepEqual([...unit.data.subarray(0, 3)], [0, 0, 0]);
  assert.throws(() => unit.planes, { code: 'ERR_ZELTA_FORMAT' });
  const [sound] = await frames(recording, 1, 'audioFrame');
  assert.equal(sound.data[0], 0xff);
  assert.throws(() => sound.samples, { code: 'ERR_ZELTA_FORMAT' });
});

test('views are of one memory, and nothing is copied', async (t) => {
  const recording = joined(t, FRAMES);
  const pictures = await frames(recording, 20, 'videoFrame');
  const before = process.memoryUsage().arrayBuffers;
  const views = pictures.map((picture) => [picture.data, ...picture.planes.map(({ data }) => data)]);
  // Memory of Node's own; what the library lends isn't in it.
  assert.ok(process.memoryUsage().arrayBuffers - before < pictures[0].byteLength);
  for (const [all, y, u, v] of views) {
    assert.ok([y, u, v].every(({ buffer }) => buffer === all.buffer));
    y[0] ^= 0xff;
    assert.equal(all[y.byteOffset], y[0]);
  }
});

test('a released frame leaves views of length 0, and copies as they were', async (t) => {
  const recording = joined(t, FRAMES);
  const [frame] = await frames(recording, 1, 'videoFrame');
  const { data, planes: [y] } = frame;
  const copies = [Buffer.from(data), data.slice()];
  const bytes = frame.byteLength;
  frame.release();
  frame.release();
  assert.equal(data.length + y.data.length + data.buffer.byteLength, 0);
  assert.equal(data[0], undefined);
  assert.ok(frame.released);
  assert.throws(() => frame.data, { code: 'ERR_ZELTA_RELEASED' });
  assert.ok(copies.every(({ length }) => length === bytes));
  const [untouched] = await frames(recording, 1, 'audioFrame');
  untouched.release();
  if (Symbol.dispose) assert.equal(frame[Symbol.dispose], frame.release);
});

test('a clone that was to move the memory is a copy', async (t) => {
  const recording = joined(t, { ...FRAMES, queueBytes: 2 ** 18 });
  const [frame] = await frames(recording, 1, 'videoFrame');
  const view = frame.data;
  const copy = Buffer.from(view);
  const clone = structuredClone(view, { transfer: [view.buffer] });
  frame.release();
  await pass(recording, 100);
  assert.ok(copy.equals(clone));
});

test('what is beyond the queue is dropped and told, until frames are released', async (t) => {
  const recording = joined(t, { ...FRAMES, queueBytes: 2 ** 18 });
  const kept = [];
  let dropped;
  for await (const event of recording) {
    if (event.type === 'dropped') { dropped = event; break; }
    if (event.type.endsWith('Frame')) kept.push(event);
    assert.ok(kept.length < 2 ** 18 / 256, 'nothing is dropped');
  }
  assert.ok(dropped.audioFrames + dropped.videoFrames > 0);
  assert.ok(dropped.framesSoFar >= dropped.audioFrames + dropped.videoFrames);
  for (const frame of kept) frame.release();
  await pass(recording, 50);
});

test('frames that nobody releases come back before the queue is full', { timeout: 60_000 }, async (t) => {
  const queueBytes = 2 ** 18;
  const recording = joined(t, { ...FRAMES, queueBytes });
  let bytes = 0;
  let taken = 0;
  let dropped = 0;
  for await (const event of recording) {
    if (event.type === 'dropped') dropped = event.framesSoFar;
    if (!event.type.endsWith('Frame')) continue;
    // One in ten has a buffer of its own.
    bytes += ++taken % 10 ? event.byteLength : event.data.length;
    if (bytes > 6 * queueBytes) break;
  }
  // Without anybody who asks the collector six are dropped for one that comes; with, a busy machine that
  // lets it run late drops one for one.
  assert.ok(dropped < 3 * taken, `${dropped} were dropped, ${taken} came`);
});

// Descriptors of the kind of which each recording has one until it is released, and a loop a few.
function eventDescriptors() {
  return fs.readdirSync('/proc/self/fd').filter((fd) => {
    try {
      return fs.readlinkSync(`/proc/self/fd/${fd}`) === 'anon_inode:[eventfd]';
    } catch {
      return false; // that of this very question
    }
  }).length;
}

// What tests before have left to the collector, it has taken. What it frees by another thread comes a
// collection later, so one look that finds no change isn't enough.
async function settledEventDescriptors() {
  let count = -1;
  let unchanged = 0;
  await until('the recordings of other tests are released', () => {
    collect();
    const last = count;
    count = eventDescriptors();
    unchanged = count === last ? unchanged + 1 : 0;
    return unchanged === 2;
  });
  return count;
}

test('frames outlive the close, and the last one releases the recording', async (t) => {
  const before = await settledEventDescriptors();
  const recording = joined(t, FRAMES);
  let [first, second, unseen] = await frames(recording, 3, 'videoFrame');
  const { data } = first;
  let view = second.data;
  await recording.close();
  assert.ok(eventDescriptors() > before);
  assert.equal(data.length, first.byteLength);
  assert.ok(new Set(data).size > 4);
  assert.ok(unseen.planes[0].data.length > 0);
  first.release();
  // A view keeps the memory without its frame.
  second = unseen = null;
  collect();
  assert.ok(new Set(view).size > 4);
  assert.ok(eventDescriptors() > before);
  view = null;
  await until('the recording is released', () => {
    collect();
    return eventDescriptors() <= before;
  });
});

test('a loop with a backlog lets timers have their turn', { timeout: 60_000 }, async (t) => {
  // More than a loop takes at once. How many wait is known once they were taken, so it is tried for longer
  // until they were enough.
  for (let taken = 0, ms = 500; taken < 100; ms *= 2) {
    const recording = joined(t, FRAMES);
    await pass(recording, 1);
    await passed(ms);
    // From here on nothing comes, so the loop never waits: a turn is one that it gives.
    await recording.leave();
    let hadTurn = false;
    let before = 0;
    setImmediate(() => { hadTurn = true; });
    taken = 0;
    for await (const event of recording) {
      ++taken;
      if (!hadTurn) ++before;
      if (event.type.endsWith('Frame')) event.release();
    }
    assert.ok(taken < 100 || before < taken, `no turn in ${taken} events`);
  }
});
