// SPDX-License-Identifier: Apache-2.0
// What the tests have in common: recordings of generated users, and programs that they run.
import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import v8 from 'node:v8';
import vm from 'node:vm';
import { setTimeout as passed } from 'node:timers/promises';

import { DecodeAudio, DecodeVideo, Recording } from 'zelta-recording';

for (const name of ['ZELTA_SERVICE_DIR', 'ZELTA_CHANNEL_SERVER', 'ZELTA_FILE_ROOT']) {
  delete process.env[name];
}

export const FRAMES = { decodeAudio: DecodeAudio.PCM_FRAMES, decodeVideo: DecodeVideo.YUV_FRAMES };

// Of the processes that record into the folder.
export function recordersInto(folder) {
  return fs.readdirSync('/proc').filter((name) => /^\d+$/.test(name)).map(Number).filter((pid) => {
    try {
      const command = fs.readFileSync(`/proc/${pid}/cmdline`, 'utf8');
      return command.includes('ZeltaCoreService') && command.includes(folder);
    } catch {
      return false; // it has ended since
    }
  });
}

// What a test leaves behind goes when the test ends; no recorder may outlive that.
export function folderOf(test) {
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'zelta-node-'));
  test.after(async () => {
    await until('the recorder is gone', () => recordersInto(folder).length === 0);
    fs.rmSync(folder, { recursive: true });
  });
  return folder;
}

// The configuration of a channel whose users are generated, in a folder of the test's own.
export function channel(folder, server = 'test:users=2,size=160x90,fps=15') {
  const file = path.join(folder, 'server.json');
  fs.writeFileSync(file, JSON.stringify({ Channel_Server: server }));
  return { cfgFilePath: file, recordFileRootDir: folder };
}

export function joined(test, { queueBytes = 0, server, ...config } = {}) {
  const recording = new Recording({ appId: 'my-app', queueBytes });
  test.after(() => recording.close());
  recording.join('meeting', { ...channel(folderOf(test), server), ...config });
  return recording;
}

export async function firstOf(recording, wanted) {
  for await (const event of recording) if (wanted(event)) return event;
  return assert.fail('the events ended before');
}

export async function frames(recording, count, type) {
  const taken = [];
  for await (const event of recording) {
    if (event.type !== type && (type || !event.type.endsWith('Frame'))) continue;
    if (taken.push(event) === count) break;
  }
  return taken;
}

export function isComplete(folder, count = 2) {
  const manifest = path.join(folder, 'recording.json');
  if (!fs.existsSync(manifest)) return false;
  const { files, sessions } = JSON.parse(fs.readFileSync(manifest, 'utf8'));
  return files.length === count && sessions.at(-1).ended !== undefined &&
    files.every(({ closed, name, bytes }) =>
      closed === 'recording ended' && fs.statSync(path.join(folder, name)).size === bytes);
}

// For what another process or the collector does: until it is so, at most half a minute.
export async function until(what, isSo) {
  const deadline = performance.now() + 30_000;
  while (!isSo()) {
    assert.ok(performance.now() < deadline, `waited in vain until ${what}`);
    await passed(20);
  }
}

v8.setFlagsFromString('--expose-gc');
export const collect = vm.runInNewContext('gc');

// Runs `source`, or a file, as a program in the folder of the tests; what came out.
export function run(folder, { source, file, flags = [], args = [] }) {
  let program = file;
  if (source !== undefined) {
    // Beside the tests, as that is where the package is found.
    program = fileURLToPath(new URL(`program-${process.pid}-${path.basename(folder)}.mjs`, import.meta.url));
    fs.writeFileSync(program, source);
  }
  return new Promise((resolve) => {
    const options = { cwd: folder, timeout: 60_000, killSignal: 'SIGKILL' };
    execFile(process.execPath, [...flags, program, ...args], options, (error, stdout, stderr) => {
      if (source !== undefined) fs.rmSync(program);
      resolve({ status: error ? error.code ?? error.signal : 0, stdout, stderr });
    });
  });
}
