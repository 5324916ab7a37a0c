// SPDX-License-Identifier: Apache-2.0
// Failures: what a call had no effect for, and which value was wrong.
'use strict';

const native = require('./native.js');

const { Result, ErrorKind, Stat } = native.constants;

const CODES = new Map(Object.entries(Result).map(([name, value]) => [value, `ERR_ZELTA_${name}`]));

class ZeltaError extends Error {
  constructor(code, text, detail) {
    super(detail ? `${text}: ${detail}` : text);
    this.name = 'ZeltaError';
    this.code = code;
    this.detail = detail;
  }
}

class SessionError extends ZeltaError {
  constructor(event) {
    const stat = nameOf(Stat, event.stat);
    super('ERR_ZELTA_SESSION', 'the session failed',
      `${nameOf(ErrorKind, event.error)}${event.stat === Stat.NONE ? '' : `, ${stat}`}`);
    this.name = 'SessionError';
    this.event = event;
  }
}

function nameOf(constants, value) {
  return Object.keys(constants).find((name) => constants[name] === value) ?? String(value);
}

function failure(result, detail) {
  return new ZeltaError(CODES.get(result) ?? 'ERR_ZELTA_UNKNOWN', native.errorText(result), detail);
}

/** Throws what `result` of a call of `session`, or of none, means; else gives it back. */
function check(result, session) {
  if (typeof result === 'number' && result < 0) throw failure(result, native.errorDetail(session));
  return result;
}

function closed() {
  return new ZeltaError('ERR_ZELTA_CLOSED', 'the recording was closed', '');
}

function wrongArgument(detail) {
  return failure(Result.ARGUMENT, detail);
}

/** As Node.js has them. */
function wrongType(name, wanted, value) {
  const got = value === null ? 'null' : typeof value;
  const error = new TypeError(`${name} is of type ${got}, it should be ${wanted}`);
  error.code = 'ERR_INVALID_ARG_TYPE';
  return error;
}

module.exports = { SessionError, ZeltaError, check, closed, failure, wrongArgument, wrongType };
