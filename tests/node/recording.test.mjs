// SPDX-License-Identifier: Apache-2.0
// Recordings in one process: events, files, failures, wrong uses.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import { createRequire } from 'node:module';
import path from 'node:path';
import { after, describe, test } from 'node:test';
import { setImmediate as nextTurn, setTimeout as passed } from 'node:timers/promises';

import * as zelta from 'zelta-recording';
import { channel, firstOf, folderOf, isComplete, joined, recordersInto, until } from './support.mjs';

const { ErrorKind, LeaveReason, Recording, SessionError, ZeltaError } = zelta;

const made = () => new Recording({ appId: 'my-app' });

test('users come, and their files are complete once it is closed', async (t) => {
  const recording = joined(t, { audioIndicationInterval: 100 });
  const seen = new Map();
  for await (const event of recording) {
    seen.set(event.type, event);
    if (event.type === 'volumes' && event.speakers.length === 2) break;
  }
  assert.equal(seen.get('joined').channelId, 'meeting');
  assert.equal(seen.get('userJoined').storageDir, recording.folder);
  assert.equal(seen.get('firstVideo').width, 160);
  assert.ok(seen.get('volumes').speakers.every(({ uid, volume }) => uid >= 1 && volume <= 255));

  let turns = 0;
  let isClosed = false;
  const turn = () => {
    ++turns;
    if (!isClosed) setImmediate(turn);
  };
  setImmediate(turn);
  await recording.close();
  isClosed = true;
  assert.ok(isComplete(recording.folder));
  assert.ok(turns > 1, 'the loop stood still while it was closed');
  await recording.close();
});

test('what waited before a leave is handed out, and then the loop ends', async (t) => {
  const recording = joined(t);
  await firstOf(recording, ({ type }) => type === 'userJoined');
  await firstOf(recording, ({ type }) => type === 'userJoined');
  await recording.leave();
  await recording.leave();
  const types = [];
  for await (const { type } of recording) types.push(type);
  assert.ok(!types.includes('left'));
  await recording.close();
  assert.ok(isComplete(recording.folder));
});

test('a close ends the loop that waits', async (t) => {
  const recording = joined(t, { server: 'test:users=0' });
  let loop;
  await new Promise((hasJoined) => {
    loop = firstOf(recording, ({ type }) => {
      if (type === 'joined') hasJoined();
      return false;
    }).catch((error) => error);
  });
  // Nobody else comes; in the next turn it has asked for more, and waits.
  await nextTurn();
  await recording.close();
  assert.match((await loop).message, /the events ended/);
  for await (const event of recording) assert.fail(event.type);
});

test('who waits takes no processor', async (t) => {
  const recording = joined(t, { isAudioOnly: true });
  await firstOf(recording, ({ type }) => type === 'receiving');
  const loop = firstOf(recording, () => false).catch(() => {});
  const before = process.cpuUsage();
  await passed(500);
  const { user, system } = process.cpuUsage(before);
  assert.ok(user + system < 250_000, `${user + system} microseconds of 500000`);
  await recording.close();
  await loop;
});

test('a close that waits for a recorder takes no processor', async (t) => {
  const folder = folderOf(t);
  const recording = made();
  t.after(() => recording.close());
  recording.join('meeting', channel(folder));
  await firstOf(recording, ({ type }) => type === 'firstVideo');
  const [recorder, ...others] = recordersInto(folder);
  assert.deepEqual(others, []);
  process.kill(recorder, 'SIGSTOP');
  const loop = firstOf(recording, () => false).catch((error) => error);
  // It has taken all there is, and waits.
  await nextTurn();
  const before = process.cpuUsage();
  let isClosed = false;
  const closing = recording.close().then(() => { isClosed = true; });
  try {
    // It ends although the recorder doesn't.
    assert.match((await loop).message, /the events ended/);
    await passed(2000);
    assert.ok(!isClosed);
    const { user, system } = process.cpuUsage(before);
    assert.ok(user + system < 500_000, `${user + system} microseconds of 2000000`);
  } finally {
    process.kill(recorder, 'SIGKILL');
  }
  await closing;
});

// Its videos that have something in them.
function begun({ folder: of }) {
  return fs.readdirSync(of).filter((name) => name.endsWith('.mp4') && fs.statSync(path.join(of, name)).size > 0);
}

// An event that never comes is a failure.
const LIMITED = { timeout: 60_000 };

// They mostly wait.
describe('at once', { concurrency: 5 }, () => {
  test('the recorder leaves by itself, and the loop ends', async (t) => {
    const recording = joined(t, { server: 'test:users=1,size=160x90,leave=1@1', idleLimitSec: 3 });
    let left;
    for await (const event of recording) if (event.type === 'left') left = event;
    assert.equal(left.reason & LeaveReason.NO_USERS, LeaveReason.NO_USERS);
  });

  test('a failed session ends the loop with an error', async (t) => {
    const recording = joined(t, { server: 'nonsense:' });
    const seen = [];
    await assert.rejects(async () => {
      for await (const event of recording) seen.push(event);
    }, (error) => error instanceof SessionError && error instanceof ZeltaError &&
      error.code === 'ERR_ZELTA_SESSION' && error.event === seen.find(({ type }) => type === 'error'));
    const { stat, ...failed } = seen.find(({ type }) => type === 'error');
    assert.equal(typeof stat, 'number');
    assert.deepEqual(failed, { type: 'error', error: ErrorKind.FAILED, endsSession: true });
  });

  test('an event that ends the session is handed out when it was left', LIMITED, async (t) => {
    const recording = joined(t, { server: 'nonsense:' });
    await firstOf(recording, ({ endsSession }) => endsSession);
    assert.throws(() => recording.setLayout({}), { code: 'ERR_ZELTA_LEFT' });
  });

  test('an event is not lost where the leave is refused', LIMITED, async (t) => {
    class Kept extends Recording {
      async leave() { throw new Error('refused'); }
    }
    const recording = new Kept({ appId: 'my-app' });
    t.after(() => recording.close());
    recording.join('meeting', channel(folderOf(t), 'nonsense:'));
    const seen = [];
    await assert.rejects(async () => {
      for await (const event of recording) seen.push(event.type);
    }, /refused/);
    assert.equal(seen.at(-1), 'error');
  });

  test('several at a time, and several loops over one', async (t) => {
    const recordings = [joined(t), joined(t), joined(t)];
    await Promise.all(recordings.map((of) => firstOf(of, ({ type }) => type === 'firstVideo')));
    assert.equal(new Set(recordings.map(({ folder }) => folder)).size, 3);
    const loops = [1, 2].map(async () => {
      const types = [];
      for await (const { type } of recordings[0]) types.push(type);
      return types;
    });
    await recordings[0].leave();
    await Promise.all(loops);
    await Promise.all(recordings.map((of) => of.close()));
  });

  test('a mix is arranged, and its users have backgrounds', LIMITED, async (t) => {
    const recording = joined(t, { isMixingEnabled: true, mixResolution: '160,90,15,200' });
    await firstOf(recording, ({ type }) => type === 'userJoined');
    recording.setLayout({
      regions: [{ uid: 1, width: 0.5 }, { uid: 2, x: 0.5, width: 0.5, fit: true }],
      backgroundColor: '#203040',
      appData: new Uint8Array([1, 2]),
    });
    recording.setUserBackground(1, null);
    recording.setLogLevel(zelta.LogLevel.NOTICE);
    await until('the mix is recorded', () => begun(recording).some((name) => name.startsWith('mix_')));
    await recording.close();
    assert.equal(begun(recording).length, 1);
  });

  test('recording starts and stops by command', LIMITED, async (t) => {
    const recording = joined(t, { triggerMode: 1 });
    await firstOf(recording, ({ type }) => type === 'joined');
    assert.throws(() => recording.stopService(), { code: 'ERR_ZELTA_REFUSED' });
    await firstOf(recording, ({ type }) => type === 'firstVideo');
    // By when one that joined later has its files, this one would have had its own.
    const other = joined(t);
    await until('the other one is recorded', () => begun(other).length === 2);
    assert.deepEqual(begun(recording), []);
    recording.startService();
    await until('it is recorded', () => begun(recording).length === 2);
    recording.stopService();
    assert.throws(() => recording.stopService(), { code: 'ERR_ZELTA_REFUSED' });
  });
});

const folder = fs.mkdtempSync('wrong-');
after(() => fs.rmSync(folder, { recursive: true }));
const config = channel(folder);
const WRONG = [
  ['no options', () => new Recording(), TypeError, /options is of type undefined, it should be an object/],
  ['no app id', () => new Recording({}), TypeError, /options.appId is of type undefined.* a string/],
  ['an empty app id', () => new Recording({ appId: '' }), 'ERR_ZELTA_ARGUMENT', /app_id is null or empty/],
  ['an unknown option', () => new Recording({ appId: 'a', queue: 1 }), 'ERR_ZELTA_ARGUMENT', /options.queue is unknown/],
  ['a queue below nothing', () => new Recording({ appId: 'a', queueBytes: -1 }), 'ERR_ZELTA_ARGUMENT', /options.queueBytes is -1/],
  ['a queue of half a byte', () => new Recording({ appId: 'a', queueBytes: 0.5 }), 'ERR_ZELTA_ARGUMENT', /whole number/],
  ['a queue that is text', () => new Recording({ appId: 'a', queueBytes: '1' }), TypeError, /options.queueBytes is of type string/],
  ['without new', () => Recording({ appId: 'a' }), TypeError, /new/],
  ['no channel', () => made().join(), TypeError, /channelId is of type undefined/],
  ['an empty channel', () => made().join('', config), 'ERR_ZELTA_ARGUMENT', /length of channel_id is 0/],
  ['a channel with a null character', () => made().join('a\0b', config), 'ERR_ZELTA_ARGUMENT', /channelId has a null/],
  ['a misspelt member', () => made().join('a', { decodeVidio: 1 }), 'ERR_ZELTA_ARGUMENT', /config.decodeVidio is unknown/],
  ['a member of a wrong type', () => made().join('a', { decodeVideo: '2' }), TypeError, /config.decodeVideo is of type string, it should be a number/],
  ['a flag that is a number', () => made().join('a', { isAudioOnly: 1 }), TypeError, /config.isAudioOnly is of type number, it should be true or false/],
  ['a path that is a number', () => made().join('a', { cfgFilePath: 1 }), TypeError, /config.cfgFilePath is of type number/],
  ['a member out of range', () => made().join('a', { decodeVideo: 9 }), 'ERR_ZELTA_ARGUMENT', /decode_video is 9, it should be 0 to 5/],
  ['a member beyond 32 bits', () => made().join('a', { idleLimitSec: 2 ** 40 }), 'ERR_ZELTA_ARGUMENT', /config.idleLimitSec is 1099511627776/],
  ['a uid below 0', () => made().join('a', { uid: -1 }), 'ERR_ZELTA_ARGUMENT', /config.uid is -1/],
  ['a configuration that is null', () => made().join('a', null), TypeError, /config is of type null, it should be an object/],
  ['members that do not go together', () => made().join('a', { isAudioOnly: true, isVideoOnly: true }), 'ERR_ZELTA_CONFIGURATION', /standard error/],
  ['no folder yet', () => made().folder, 'ERR_ZELTA_NOT_JOINED', /no folder/],
  ['a layout before a join', () => made().setLayout({}), 'ERR_ZELTA_NOT_JOINED', /before a join/],
  ['a layout that is none', () => made().setLayout(null), TypeError, /layout is of type null/],
  ['a region without uid', () => made().setLayout({ regions: [{}] }), TypeError, /layout.regions\[0\].uid is of type undefined/],
  ['members that are undefined, before a join', () => made().setLayout({ regions: [{ uid: 1, x: undefined, fit: undefined }] }), 'ERR_ZELTA_NOT_JOINED', /before a join/],
  ['a region that is text', () => made().setLayout({ regions: 'ab' }), TypeError, /layout.regions is of type string/],
  ['data that is text', () => made().setLayout({ appData: 'ab' }), TypeError, /layout.appData is of type string, it should be a Uint8Array/],
  ['a color that is none', () => made().setLayout({ backgroundColor: 'red' }), 'ERR_ZELTA_ARGUMENT', /background_color/],
  ['a start before a join', () => made().startService(), 'ERR_ZELTA_NOT_JOINED', /before a join/],
  ['a stop before a join', () => made().stopService(), 'ERR_ZELTA_NOT_JOINED', /before a join/],
  ['a background before a join', () => made().setUserBackground(1, 'a.png'), 'ERR_ZELTA_NOT_JOINED', /before a join/],
  ['a level that is none', () => made().setLogLevel(7), 'ERR_ZELTA_ARGUMENT', /level is 7/],
  ['events before a join', async () => { for await (const event of made()) assert.fail(event.type); }, 'ERR_ZELTA_NOT_JOINED', /before a join/],
  ['a leave before a join', () => made().leave(), 'ERR_ZELTA_NOT_JOINED', /before a join/],
];
for (const [what, use, wanted, text] of WRONG) {
  test(`wrong: ${what}`, async () => {
    const expected = wanted === TypeError ? { name: 'TypeError' } : { name: 'ZeltaError', code: wanted };
    await assert.rejects(async () => use(), { ...expected, message: text });
  });
}

test('wrong: one that was joined, left, closed', async (t) => {
  const recording = joined(t);
  assert.throws(() => recording.join('meeting', config), { code: 'ERR_ZELTA_JOINED' });
  await firstOf(recording, ({ type }) => type === 'joined');
  const leaving = recording.leave();
  // A thread has begun with it, and has half a second to go.
  await nextTurn();
  const before = performance.now();
  for (const when of ['while it is left', 'after that']) {
    for (const use of [() => recording.join('meeting', config), () => recording.setLayout({}),
      () => recording.setUserBackground(1, null), () => recording.startService(), () => recording.stopService()]) {
      assert.throws(use, { code: 'ERR_ZELTA_LEFT' }, when);
      if (when === 'while it is left') assert.ok(performance.now() - before < 250, 'it waited for the leave');
    }
    await leaving;
  }
  await recording.close();
  for (const use of [() => recording.join('meeting'), () => recording.setLayout({}),
    () => recording.startService(), () => recording.setLogLevel(1)]) {
    assert.throws(use, { code: 'ERR_ZELTA_CLOSED' });
  }
  await recording.leave();
});

test('a leave does nothing where nothing is left to do', async (t) => {
  const unjoined = made();
  const refused = assert.rejects(unjoined.leave(), { code: 'ERR_ZELTA_NOT_JOINED' });
  // Which it isn't by that.
  unjoined.join('meeting', channel(folderOf(t)));
  await refused;
  await Promise.all([unjoined.leave(), unjoined.leave(), unjoined.close(), unjoined.leave()]);
  const unused = made();
  await unused.close();
  await unused.leave();
});

test('a join that failed may be tried again', async (t) => {
  const recording = made();
  t.after(() => recording.close());
  const config = channel(folderOf(t));
  assert.throws(() => recording.join('meeting', { ...config, appliteDir: folder }), ZeltaError);
  recording.join('meeting', config);
  await firstOf(recording, ({ type }) => type === 'joined');
});

test('both kinds of import have the same names, and types have the same numbers', () => {
  const load = createRequire(import.meta.url);
  const required = load('zelta-recording');
  assert.deepEqual(Object.keys(zelta).sort(), Object.keys(required).sort());
  const types = fs.readFileSync(load.resolve('zelta-recording').replace('index.js', 'index.d.ts'), 'utf8');
  const groups = [...types.matchAll(/^export const (\w+): \{([^}]*)\};/gm)];
  assert.equal(groups.length, 12);
  for (const [, name, members] of groups) {
    const numbers = [...members.matchAll(/readonly (\w+): (\d+);?/g)].map(([, of, value]) => [of, Number(value)]);
    assert.deepEqual(Object.fromEntries(numbers), zelta[name], name);
  }
});
