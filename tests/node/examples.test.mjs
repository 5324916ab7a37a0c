// SPDX-License-Identifier: Apache-2.0
// The examples, as who reads the documentation runs them.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { channel, folderOf, run } from './support.mjs';

const example = (name) => fileURLToPath(new URL(`../examples/${name}`, import.meta.url));

test('record.mjs records two users', async (t) => {
  const folder = folderOf(t);
  channel(folder);
  const { status, stdout, stderr } = await run(folder, { file: example('record.mjs'), args: ['server.json'] });
  assert.equal(status, 0, stderr);
  const lines = stdout.trim().split('\n').sort();
  assert.deepEqual(lines.map((line) => line.slice(0, 21)), ['user 1 is recorded in', 'user 2 is recorded in']);
  const recording = path.resolve(folder, lines[0].slice('user 1 is recorded in '.length));
  assert.equal(fs.readdirSync(recording).filter((name) => name.endsWith('.mp4')).length, 2);
});

test('record.mjs says that a channel can not be joined', async (t) => {
  const folder = folderOf(t);
  channel(folder, 'nonsense:');
  const { status, stderr } = await run(folder, { file: example('record.mjs'), args: ['server.json'] });
  assert.equal(status, 1);
  assert.match(stderr, /the session failed: FAILED/);
});

test('frames.mjs hears and sees two users', async (t) => {
  const folder = folderOf(t);
  channel(folder);
  const { status, stdout, stderr } = await run(folder, { file: example('frames.mjs'), args: ['server.json'] });
  assert.equal(status, 0, stderr);
  for (const wanted of [/^user 1: -?[\d.]+ dBFS$/m, /^user 2: brightness [\d.]+$/m]) assert.match(stdout, wanted);
  assert.equal(stdout.trim().split('\n').length, 100);
});

test('layout.mjs draws two users and makes one film of them', async (t) => {
  const folder = folderOf(t);
  channel(folder);
  const { status, stdout, stderr } = await run(folder, { file: example('layout.mjs'), args: ['server.json', '5'] });
  assert.equal(status, 0, stderr);
  assert.match(stdout, /^2 users: [12],[12]$/m);
  const recording = path.resolve(folder, /^recorded in (.*)$/m.exec(stdout)[1]);
  const films = fs.readdirSync(recording).filter((name) => /^mix_.*\.mp4$/.test(name));
  assert.equal(films.length, 1);
  assert.ok(fs.statSync(path.join(recording, films[0])).size > 1024);
});
