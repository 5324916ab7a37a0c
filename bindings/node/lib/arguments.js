// SPDX-License-Identifier: Apache-2.0
// Checks what applications give, and puts it as the addon takes it: a wrong type is a TypeError, a wrong
// value a ZeltaError, both with the name and what would be right.
'use strict';

const native = require('./native.js');
const { wrongArgument, wrongType } = require('./errors.js');

const INT32 = { least: -(2 ** 31), most: 2 ** 31 - 1 };
const UID = { least: 0, most: 2 ** 32 - 1 };
const REGION = { uid: undefined, fit: false, x: 0, y: 0, width: 1, height: 1, alpha: 1 };

function text(name, value) {
  if (typeof value !== 'string') throw wrongType(name, 'a string', value);
  if (value.includes('\0')) throw wrongArgument(`${name} has a null character in it`);
  return value;
}

function textOrNothing(name, value) {
  return value === undefined || value === null ? null : text(name, value);
}

function number(name, value) {
  if (typeof value !== 'number') throw wrongType(name, 'a number', value);
  return value;
}

function flag(name, value) {
  if (typeof value !== 'boolean') throw wrongType(name, 'true or false', value);
  return Number(value);
}

function integer(name, value, { least, most }) {
  if (!Number.isInteger(number(name, value)) || value < least || value > most) {
    throw wrongArgument(`${name} is ${value}, it should be a whole number, ${least} to ${most}`);
  }
  return value;
}

function uid(name, value) {
  return integer(name, value, UID);
}

function members(name, value, known) {
  if (typeof value !== 'object' || value === null) throw wrongType(name, 'an object', value);
  for (const member of Object.keys(value)) {
    if (!known.includes(member)) {
      throw wrongArgument(`${name}.${member} is unknown, it should be one of ${known.join(', ')}`);
    }
  }
  return value;
}

function options(value) {
  const given = members('options', value, ['appId', 'queueBytes']);
  const bytes = { least: 0, most: Number.MAX_SAFE_INTEGER };
  return {
    appId: text('options.appId', given.appId),
    queueBytes: integer('options.queueBytes', given.queueBytes ?? 0, bytes),
  };
}

const JOIN = ['uid', 'channelKey'];
const CONFIG = [...native.configNumbers, ...native.configTexts, ...JOIN];

function configNumber(name, value) {
  if (value === undefined) return 0;
  const place = `config.${name}`;
  return name.startsWith('is') ? flag(place, value) : integer(place, value, INT32);
}

function config(value) {
  const given = members('config', value, CONFIG);
  return {
    uid: uid('config.uid', given.uid ?? 0),
    channelKey: textOrNothing('config.channelKey', given.channelKey) ?? '',
    numbers: native.configNumbers.map((name) => configNumber(name, given[name])),
    texts: native.configTexts.map((name) => textOrNothing(`config.${name}`, given[name])),
  };
}

function region(place, value) {
  const given = members(place, value, Object.keys(REGION));
  return Object.entries(REGION).map(([name, byItself]) => {
    const { [name]: member = byItself } = given;
    if (name === 'uid') return uid(`${place}.uid`, member);
    if (name === 'fit') return flag(`${place}.fit`, member);
    return number(`${place}.${name}`, member);
  });
}

function layout(value) {
  const given = members('layout', value, ['regions', 'backgroundColor', 'appData']);
  const regions = given.regions ?? [];
  if (typeof regions[Symbol.iterator] !== 'function' || typeof regions === 'string') {
    throw wrongType('layout.regions', 'a list of regions', regions);
  }
  const appData = given.appData ?? new Uint8Array(0);
  if (!(appData instanceof Uint8Array)) throw wrongType('layout.appData', 'a Uint8Array', appData);
  return {
    regions: Float64Array.from([...regions].flatMap((of, i) => region(`layout.regions[${i}]`, of))),
    backgroundColor: textOrNothing('layout.backgroundColor', given.backgroundColor),
    appData,
  };
}

function logLevel(value) {
  return integer('level', value, { least: 1, most: 6 });
}

module.exports = { config, layout, logLevel, options, text, textOrNothing, uid };
