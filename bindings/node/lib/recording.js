// SPDX-License-Identifier: Apache-2.0
// A recording, from its making to its close.
'use strict';

const { setImmediate: nextTurn } = require('node:timers/promises');
const native = require('./native.js');
const given = require('./arguments.js');
const { SessionError, check, closed, failure } = require('./errors.js');
const { AudioFrame, VideoFrame } = require('./frames.js');

const { Result } = native.constants;
// Events that a loop takes before all else has its turn, though more are there.
const EVENTS_A_TURN = 64;

// Joined, and neither left nor closed: what they record goes on, whether anybody refers to them or not.
const inUse = new Set();

class Recording {
  // Null once it is closed.
  #session;
  #folder = null;
  #joined = false;
  #leaving = null; // once it is asked for; null again where that failed
  #over = false; // a left or a failure was handed out
  #failure = null;
  #readable = null;
  #taken = 0;
  #closing = null;

  constructor(options) {
    const { appId, queueBytes } = given.options(options);
    this.#session = check(native.create(appId, queueBytes));
  }

  #open() {
    if (this.#session === null) throw closed();
    return this.#session;
  }

  // For calls that make no sense after a leave. One that runs would let them, and so the loop, wait for it.
  #openAndNotLeft() {
    const session = this.#open();
    if (this.#leaving !== null) throw failure(Result.LEFT, 'a new recording is needed');
    return session;
  }

  // ---- Joined ------------------------------------------------------------------------------

  join(channelId, config = {}) {
    const channel = given.text('channelId', channelId);
    const { channelKey, uid, numbers, texts } = given.config(config);
    const session = this.#openAndNotLeft();
    check(native.join(session, channelKey, channel, uid, numbers, texts), session);
    this.#joined = true;
    this.#folder = check(native.folder(session), session);
    native.hold(session, true);
    inUse.add(this);
  }

  get folder() {
    if (this.#folder === null) throw failure(Result.NOT_JOINED, 'there is no folder yet');
    return this.#folder;
  }

  // ---- Commands ----------------------------------------------------------------------------

  setLayout(layout) {
    const { regions, backgroundColor, appData } = given.layout(layout);
    const session = this.#openAndNotLeft();
    check(native.setLayout(session, regions, backgroundColor, appData), session);
  }

  setUserBackground(uid, image) {
    const user = given.uid('uid', uid);
    const path = given.textOrNothing('image', image) ?? '';
    const session = this.#openAndNotLeft();
    check(native.setUserBackground(session, user, path), session);
  }

  startService() {
    const session = this.#openAndNotLeft();
    check(native.startService(session), session);
  }

  stopService() {
    const session = this.#openAndNotLeft();
    check(native.stopService(session), session);
  }

  setLogLevel(level) {
    const wanted = given.logLevel(level);
    const session = this.#open();
    check(native.setLogLevel(session, wanted), session);
  }

  // ---- Events ------------------------------------------------------------------------------

  async *[Symbol.asyncIterator]() {
    if (this.#session !== null && !this.#joined) {
      throw failure(Result.NOT_JOINED, 'no event comes before a join');
    }
    for (let event = await this.#next(); event !== null; event = await this.#next()) {
      // Before it is handed out, as the loop may end at it. Where that fails the event isn't lost, and the
      // next step tries again.
      if (this.#over) await this.leave().catch(() => {});
      yield event;
      if (this.#over) await this.leave();
    }
    if (this.#failure !== null) throw new SessionError(this.#failure);
  }

  // The oldest event that waits, or the next that comes; null: none will.
  async #next() {
    if (++this.#taken % EVENTS_A_TURN === 0) await nextTurn();
    while (this.#session !== null) {
      const event = check(native.next(this.#session), this.#session);
      if (typeof event === 'object') return this.#noted(event);
      if (event === Result.END) {
        this.#letGo();
        return null;
      }
      this.#readable ??= native.readable(this.#session).then(() => {
        this.#readable = null;
      });
      await this.#readable;
    }
    return null;
  }

  #noted(event) {
    if (event.type === 'audioFrame') return new AudioFrame(event);
    if (event.type === 'videoFrame') return new VideoFrame(event);
    if (event.type === 'error' && event.endsSession) this.#failure ??= event;
    this.#over ||= event.type === 'left' || this.#failure !== null;
    return event;
  }

  // ---- Left --------------------------------------------------------------------------------

  async leave() {
    if (this.#session === null) return;
    if (!this.#joined) throw failure(Result.NOT_JOINED, 'a leave before a join');
    this.#leaving ??= this.#leave(this.#session);
    try {
      await this.#leaving;
    } catch (error) {
      this.#leaving = null;
      throw error;
    }
  }

  async #leave(session) {
    const result = await native.leave(session);
    // By a close that was faster.
    if (result !== Result.LEFT) check(result, session);
    this.#letGo();
  }

  close() {
    this.#closing ??= this.#finish();
    return this.#closing;
  }

  async #finish() {
    const session = this.#session;
    // What waits is handed out no more.
    this.#session = null;
    const result = await native.finish(session);
    inUse.delete(this);
    check(result);
  }

  // The process need not live on for it.
  #letGo() {
    inUse.delete(this);
    if (this.#session !== null) native.hold(this.#session, false);
  }
}
if (Symbol.asyncDispose) {
  Object.defineProperty(Recording.prototype, Symbol.asyncDispose, { value: Recording.prototype.close });
}

module.exports = { Recording };
