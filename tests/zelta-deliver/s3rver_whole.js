#!/usr/bin/env node
// SPDX-License-Identifier: Apache-2.0
// Runs s3rver so that an object is there whole or not at all, as S3 has it: by itself it writes in
// place, and what breaks off stays.
//
//   s3rver_whole.js S3RVER'S-FOLDER DIRECTORY ADDRESS PORT
'use strict';

const crypto = require('crypto');
const path = require('path');

const [home, directory, address, port] = process.argv.slice(2);
const fs = require(require.resolve('fs-extra', { paths: [home] }));
const S3rver = require(home);
const Store = require(path.join(home, 'lib/stores/filesystem'));

const BESIDE = '.not-whole';
const put = Store.prototype.putObject;

Store.prototype.putObject = async function putObject(object) {
  const beside = Object.assign(Object.create(Object.getPrototypeOf(object)), object, {
    bucket: BESIDE,
    key: crypto.randomUUID(),
  });
  const done = await put.call(this, beside);
  const from = resource => this.getResourcePath(BESIDE, beside.key, resource);
  const to = resource => this.getResourcePath(object.bucket, object.key, resource);
  // It is answered before the last of it is written.
  while ((await fs.stat(from('object'))).size < done.size) {
    await new Promise(setImmediate);
  }
  await fs.mkdirp(path.dirname(to('object')));
  for (const resource of ['object.md5', 'metadata.json', 'object']) {
    await fs.rename(from(resource), to(resource));
  }
  return done;
};

new S3rver({ directory, address, port: Number(port), vhostBuckets: false, silent: true })
  .run()
  .catch(error => {
    console.error(error);
    process.exit(1);
  });
