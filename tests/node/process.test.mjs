// SPDX-License-Identifier: Apache-2.0
// How processes and worker threads end: with recordings open they neither crash nor hang, and what was
// recorded is whole.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { describe, test } from 'node:test';

import { channel, folderOf, isComplete, run, until } from './support.mjs';

// What the programs begin with: `recording` is joined, its first frames are in `kept`.
const begin = (config, channelId = 'meeting') => `
  import { Recording } from 'zelta-recording';
  const recording = new Recording({ appId: 'my-app' });
  recording.join('${channelId}', ${JSON.stringify(config)});
  const kept = [];
  for await (const event of recording) {
    if (event.type.endsWith('Frame') && kept.push([event, event.data]) === 20) break;
    if (event.type === 'firstVideo' && event.uid === 2 && ${config.decodeVideo !== 2}) break;
  }
`;
const FRAMES = { decodeVideo: 2, decodeAudio: 2 };

function recordingIn(folder) {
  const [day] = fs.readdirSync(folder).filter((name) => /^\d{8}$/.test(name));
  const name = fs.readdirSync(path.join(folder, day)).find((of) => of.startsWith('meeting_'));
  return path.join(folder, day, name);
}

// They mostly wait.
const SEVERAL = { concurrency: 3 };

// What ends `program` of a folder, what it is to print, and how it is to end.
const ENDS = [
  ['process.exit with all alive', FRAMES, 'process.exit(7);', '', 7],
  ['process.exit while it is recorded', {}, 'process.exit(7);', '', 7],
  ['process.exit while it is closed', {}, 'recording.close(); setImmediate(() => process.exit(7));', '', 7],
  ['an error that nobody caught', FRAMES, "throw new Error('mine');", '', 1],
  ['nothing left to do, after a close', FRAMES, 'await recording.close();', '', 0],
  ['nothing left to do, after a leave', {}, 'await recording.leave();', '', 0],
  ['a loop that never asks again', {}, `
    const timer = setTimeout(() => { console.log('alive'); recording.close(); }, 300);
    timer.unref();`, 'alive\n', 0],
  ['a loop that waits, and a close', {}, `
    setTimeout(() => recording.close(), 300).unref();
    for await (const event of recording) ;
    console.log('ended');`, 'ended\n', 0],
  ['one that is made and no more', {}, `
    await recording.close();
    globalThis.another = new Recording({ appId: 'my-app' });`, '', 0],
];
describe('processes', SEVERAL, () => ENDS.forEach(([what, config, end, printed, wanted]) => {
  test(`the process ends by ${what}`, async (t) => {
    const folder = folderOf(t);
    const source = begin({ ...channel(folder), ...config }) + end;
    const { status, stdout, stderr } = await run(folder, { source });
    assert.equal(status, wanted, stderr);
    assert.equal(stdout, printed);
    const recording = recordingIn(folder);
    const files = config === FRAMES ? 0 : 2;
    if (wanted === 0) assert.ok(isComplete(recording, files), 'files that are not complete at the end');
    // After an exit the recorder notices, and completes its files by itself.
    await until('the recorder has ended', () => isComplete(recording, files));
  });
}));

// What a loop is broken out of at, and how it comes.
const LAST = [
  ['a left event', 'test:users=0', "event.type === 'left'"],
  ['a failure', 'nonsense:', "event.type === 'error' && event.endsSession"],
];
describe('loops that end early', SEVERAL, () => LAST.forEach(([what, server, isLast]) => {
  test(`the process ends by a break at ${what}`, async (t) => {
    const folder = folderOf(t);
    const source = `
      import { Recording } from 'zelta-recording';
      const recording = new Recording({ appId: 'my-app' });
      recording.join('meeting', ${JSON.stringify({ ...channel(folder, server), idleLimitSec: 3 })});
      for await (const event of recording) if (${isLast}) break;
      console.log('broken out');
    `;
    const { status, stdout, stderr } = await run(folder, { source });
    assert.equal(status, 0, stderr);
    assert.equal(stdout, 'broken out\n');
  });
}));

// Of a worker thread, which begins as the programs do, and then says so.
const READY = "import { parentPort } from 'node:worker_threads'; parentPort.postMessage('ready');";
const WORKERS = [
  ['is terminated with all alive', `${READY} setInterval(() => {}, 1000);`, FRAMES, 'worker.terminate()', 1],
  ['is terminated while it records', READY, {}, 'worker.terminate()', 1],
  ['is terminated while it waits', `${READY} for await (const event of recording) ;`, {}, 'worker.terminate()', 1],
  ['is terminated while it closes', `recording.close(); ${READY}`, {}, 'worker.terminate()', 1],
  ['exits', `${READY} process.exit(3);`, FRAMES, '', 3],
  ['has nothing left to do', `${READY} await recording.close();`, FRAMES, '', 0],
];
describe('worker threads', SEVERAL, () => WORKERS.forEach(([what, body, config, end, wanted]) => {
  test(`a worker thread ${what}`, async (t) => {
    const folder = folderOf(t);
    const settings = { ...channel(folder), ...config };
    // Its imports are found where the tests are.
    const base = new URL('.', import.meta.url).href;
    const source = `
      import { Worker } from 'node:worker_threads';
      import { createRequire } from 'node:module';
      import fs from 'node:fs';
      const program = ${JSON.stringify(begin(settings) + body)};
      const file = new URL('worker-' + process.pid + '.mjs', ${JSON.stringify(base)});
      fs.writeFileSync(file, program);
      const worker = new Worker(file);
      worker.on('message', () => { ${end} });
      worker.on('error', (error) => { console.log(error); });
      worker.on('exit', async (code) => {
        fs.rmSync(file);
        console.log(code);
        // The library goes on in this thread.
        const { Recording } = await import('zelta-recording');
        const recording = new Recording({ appId: 'my-app' });
        recording.join('another', ${JSON.stringify(settings)});
        await recording.close();
      });
    `;
    const { status, stdout, stderr } = await run(folder, { source });
    assert.equal(status, 0, stderr);
    assert.equal(stdout, `${wanted}\n`);
    assert.ok(isComplete(recordingIn(folder), config === FRAMES ? 0 : 2));
  });
}));

describe('memory', SEVERAL, () => {
  test('a recording that was left and forgotten is finished by the collector', async (t) => {
    const folder = folderOf(t);
    const source = `
      import { collect, firstOf, isComplete, until } from './support.mjs';
      import { Recording } from 'zelta-recording';
      async function recorded() {
        const recording = new Recording({ appId: 'my-app' });
        recording.join('meeting', ${JSON.stringify(channel(folder))});
        await firstOf(recording, ({ type, uid }) => type === 'firstVideo' && uid === 2);
        await recording.leave();
        return recording.folder;
      }
      const folder = await recorded();
      await until('it is complete', () => { collect(); return isComplete(folder); });
    `;
    const { status, stderr } = await run(folder, { source });
    assert.equal(status, 0, stderr);
  });

  test('a small heap suffices for frames that nobody releases', async (t) => {
    const folder = folderOf(t);
    const source = `
      import { Recording } from 'zelta-recording';
      const recording = new Recording({ appId: 'my-app', queueBytes: 8e6 });
      recording.join('meeting', ${JSON.stringify({ ...channel(folder, 'test:users=2,size=640x360,fps=30'), ...FRAMES })});
      let bytes = 0;
      for await (const event of recording) {
        if (event.type.endsWith('Frame')) bytes += event.data.length;
        if (bytes > 40e6) break;
      }
      await recording.close();
    `;
    const { status, stderr } = await run(folder, { source, flags: ['--max-old-space-size=24'] });
    assert.equal(status, 0, stderr);
  });

  const major = Number.parseInt(process.versions.node, 10);
  const skip = major < 20 && 'no buffer can be moved';
  test('memory that was moved to another buffer is not given back under it', { skip }, async (t) => {
    const folder = folderOf(t);
    const source = `
      import assert from 'node:assert/strict';
      import { Recording } from 'zelta-recording';
      const recording = new Recording({ appId: 'my-app', queueBytes: 2 ** 18 });
      recording.join('meeting', ${JSON.stringify({ ...channel(folder), ...FRAMES })});
      let seen = 0;
      let moved;
      let copy;
      for await (const event of recording) {
        if (event.type === 'videoFrame' && moved === undefined) {
          copy = Buffer.from(event.data);
          moved = event.data.buffer.transfer();
        }
        if (event.type.endsWith('Frame')) event.release();
        if (moved !== undefined && ++seen === 100) break;
      }
      assert.ok(copy.equals(new Uint8Array(moved)));
      await recording.close();
      assert.ok(copy.equals(new Uint8Array(moved)));
    `;
    const flags = major < 22 ? ['--harmony-rab-gsab-transfer'] : [];
    const { status, stderr } = await run(folder, { source, flags });
    assert.equal(status, 0, stderr);
  });
});
