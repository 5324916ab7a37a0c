// SPDX-License-Identifier: Apache-2.0
// Types of zelta-recording, and what each call does. docs/node.md has examples.

// ---- Numbers of zelta_recording.h by name ----------------------------------------------------

type Value<Constants> = Constants[keyof Constants];

/** Of an error event. */
export const ErrorKind: {
  readonly FAILED: 1; // the recorder could not do its work
  readonly USER_FAILED: 2; // something of one user's is not recorded
  readonly RECORDER_GONE: 3; // and could not be started again
};
export type ErrorKind = Value<typeof ErrorKind>;

/** What is added to an ErrorKind. The last three are bits, and may come together. */
export const Stat: {
  readonly NONE: 0;
  readonly MEDIA_ENGINE: 1;
  readonly JOIN: 2;
  readonly PROCESS: 3;
  readonly MIXED_VIDEO: 4;
  readonly NOT_GIVEN: 5;
  readonly PROXY: 6;
  readonly POLL_ERROR: 8;
  readonly POLL_HANG_UP: 16;
  readonly POLL_INVALID: 32;
};

/** Of a warning event. */
export const WarningKind: {
  readonly NO_AVAILABLE_CHANNEL: 103;
  readonly LOOKUP_TIMEOUT: 104;
  readonly LOOKUP_REJECTED: 105;
  readonly OPEN_TIMEOUT: 106;
  readonly OPEN_REJECTED: 107;
  readonly RECOVERED: 108; // the recorder had died and was started again
};
export type WarningKind = Value<typeof WarningKind>;

/** Why a recorder left; bits. */
export const LeaveReason: {
  readonly SIGNAL: 2;
  readonly NO_USERS: 4; // for idleLimitSec
  readonly GUARD: 8; // no progress, no disk
  readonly APPLICATION: 16;
};

/** Why a user is gone. */
export const OfflineReason: {
  readonly QUIT: 0;
  readonly DROPPED: 1;
  readonly BECOME_AUDIENCE: 2;
};
export type OfflineReason = Value<typeof OfflineReason>;

export const AudioFormat: { readonly PCM: 0; readonly AAC: 1 };
export type AudioFormat = Value<typeof AudioFormat>;

export const VideoFormat: { readonly YUV: 0; readonly H264: 1; readonly JPG: 2 };
export type VideoFormat = Value<typeof VideoFormat>;

/** What is done with video; frames come as VideoFrame. */
export const DecodeVideo: {
  readonly FILES: 0;
  readonly H264_FRAMES: 1;
  readonly YUV_FRAMES: 2;
  readonly JPG_FRAMES: 3;
  readonly JPG_FILES: 4;
  readonly FILES_AND_JPG_FILES: 5;
};
export type DecodeVideo = Value<typeof DecodeVideo>;

/** What is done with sound; frames come as AudioFrame. */
export const DecodeAudio: {
  readonly FILES: 0;
  readonly AAC_FRAMES: 1;
  readonly PCM_FRAMES: 2;
  readonly MIXED_PCM_FRAMES: 3; // of all users, uid 0
};
export type DecodeAudio = Value<typeof DecodeAudio>;

/** Whether mixed sound and picture share a file. */
export const MixedFile: { readonly APART: 0; readonly BASELINE: 1; readonly HIGH: 2 };
export type MixedFile = Value<typeof MixedFile>;

/** Of mixed sound, at 48 kHz. */
export const AudioProfile: {
  readonly MONO: 0; // 48 kbit/s
  readonly HIGH_MONO: 1; // 128 kbit/s
  readonly HIGH_STEREO: 2; // 192 kbit/s
};
export type AudioProfile = Value<typeof AudioProfile>;

export const LogLevel: {
  readonly FATAL: 1;
  readonly ERROR: 2;
  readonly WARN: 3;
  readonly NOTICE: 4;
  readonly INFO: 5;
  readonly DEBUG: 6;
};
export type LogLevel = Value<typeof LogLevel>;

/** The version of the library, as "1.2.3". */
export const version: string;

// ---- What is recorded ------------------------------------------------------------------------

/** The members of zelta_config in zelta_recording.h, with the same defaults. */
export interface Config {
  /** The recorder's own; 0: the recorder chooses. */
  uid?: number;
  /** The app id where it isn't given. */
  channelKey?: string | null;
  isAudioOnly?: boolean;
  isVideoOnly?: boolean;
  isMixingEnabled?: boolean;
  mixedVideoAudio?: MixedFile;
  decodeVideo?: DecodeVideo;
  decodeAudio?: DecodeAudio;
  /** 0: not restricted. */
  lowUdpPort?: number;
  /** 0: not restricted; else at least lowUdpPort + 3. */
  highUdpPort?: number;
  /** At least 3; 0: 300 seconds. */
  idleLimitSec?: number;
  /** Seconds between JPEGs; 0: 5. */
  captureInterval?: number;
  /** Milliseconds between volumes events; 0: none. */
  audioIndicationInterval?: number;
  /** 0 communication, 1 live broadcasting. */
  channelProfile?: 0 | 1;
  /** 0 the large picture, 1 the small one. */
  streamType?: 0 | 1;
  /** 0 recording starts with the join, 1 with startService(). */
  triggerMode?: 0 | 1;
  audioProfile?: AudioProfile;
  /** "width,height,fps,kbps" */
  mixResolution?: string | null;
  decryptionMode?: string | null;
  secret?: string | null;
  /** Folder of ZeltaCoreService. */
  appliteDir?: string | null;
  /** An existing folder; the current one where it isn't given. */
  recordFileRootDir?: string | null;
  /** JSON, which names the channel server. */
  cfgFilePath?: string | null;
  proxyServer?: string | null;
  defaultVideoBg?: string | null;
  defaultUserBg?: string | null;
}

/** Where a user stands on the mixed picture; x to height are shares of it. */
export interface Region {
  uid: number;
  /** Left edge; 0. */
  x?: number;
  /** Upper edge; 0. */
  y?: number;
  /** 1. */
  width?: number;
  /** 1. */
  height?: number;
  /** 0 (invisible) to 1, which it is by itself. */
  alpha?: number;
  /** True: all of the picture is in the region; false: it fills it, and is cropped. */
  fit?: boolean;
}

export interface Layout {
  /** Later ones lie on top; none: the background alone. */
  regions?: Iterable<Region>;
  /** "#rrggbb"; black where it isn't given. */
  backgroundColor?: string | null;
  /** Passed through; at most 1 MiB. */
  appData?: Uint8Array;
}

// ---- Events ----------------------------------------------------------------------------------

/** Something failed. */
export interface ErrorEvent {
  type: 'error';
  error: ErrorKind;
  /** Of Stat. */
  stat: number;
  /** False: it is one user's, and all else is recorded. */
  endsSession: boolean;
}
export interface WarningEvent { type: 'warning'; warning: WarningKind }
/** The recorder is in the channel, as `uid`; comes again after it had to be started anew. */
export interface Joined { type: 'joined'; uid: number; channelId: string }
/** The recorder left by itself, so the recording was left; its files are complete. `reason`: of LeaveReason. */
export interface Left { type: 'left'; reason: number }
/** `storageDir` is the recording folder. */
export interface UserJoined { type: 'userJoined'; uid: number; storageDir: string }
export interface UserOffline { type: 'userOffline'; uid: number; reason: OfflineReason }
/** Another user speaks loudest. */
export interface Speaker { type: 'speaker'; uid: number }
/** Comes every `audioIndicationInterval`. `volume`: 0 to 255. */
export interface Volumes { type: 'volumes'; speakers: { uid: number; volume: number }[] }
/** `elapsedMs`: since the channel was joined. */
export interface FirstVideo {
  type: 'firstVideo';
  uid: number;
  width: number;
  height: number;
  elapsedMs: number;
}
export interface FirstAudio { type: 'firstAudio'; uid: number; elapsedMs: number }
/** Whether sound and pictures of any user are coming in. */
export interface Receiving { type: 'receiving'; audio: boolean; video: boolean }
/** The connection to the channel is lost for good. */
export interface Lost { type: 'lost' }
/** The connection is interrupted; the recorder tries again. */
export interface Interrupted { type: 'interrupted' }
/** Stands where frames are missing, because there was no room in the queue. */
export interface Dropped {
  type: 'dropped';
  audioFrames: number;
  videoFrames: number;
  /** There was no memory for them. */
  otherEvents: number;
  /** That the recording has dropped, these included. */
  framesSoFar: number;
}

/** More kinds may come: ignore those that you don't know. */
export type Event =
  | AudioFrame | Dropped | ErrorEvent | FirstAudio | FirstVideo | Interrupted | Joined | Left | Lost
  | Receiving | Speaker | UserJoined | UserOffline | VideoFrame | Volumes | WarningEvent;

/**
 * What both kinds of frames have. Views are of the frame's memory, without a copy;
 * `Buffer.from(view)` and `view.slice()` are copies.
 */
declare abstract class Frame {
  protected constructor();
  /** The user; 0 for mixed sound. */
  readonly uid: number;
  /** Media time, of the first sample, in milliseconds. */
  readonly timeMs: number;
  readonly byteLength: number;
  /** All bytes of the frame. ERR_ZELTA_RELEASED. */
  readonly data: Uint8Array;
  readonly released: boolean;
  /**
   * Gives the memory back: every view of it has length 0 from here on. More than one does nothing.
   * Not before what was started with a view, such as a write to a file, has ended.
   */
  release(): void;
  [Symbol.dispose](): void;
}

export class AudioFrame extends Frame {
  private constructor();
  readonly type: 'audioFrame';
  /** PCM: 16-bit samples. AAC: one ADTS frame. */
  readonly format: AudioFormat;
  /** 1 or 2. */
  readonly channels: number;
  /** PCM: samples a second and channel; else 0. */
  readonly sampleRate: number;
  /** AAC: bits a second; else 0. */
  readonly bitrate: number;
  /** PCM: all channels, interleaved. ERR_ZELTA_FORMAT, ERR_ZELTA_RELEASED. */
  readonly samples: Int16Array;
}

export interface Plane {
  data: Uint8Array;
  /** Bytes from one row to the next. */
  stride: number;
  width: number;
  height: number;
}

export class VideoFrame extends Frame {
  private constructor();
  readonly type: 'videoFrame';
  /** An I420 picture, an access unit of H.264 in byte-stream format, or a JPEG image. */
  readonly format: VideoFormat;
  /** Degrees clockwise by which to turn the picture for display. */
  readonly rotation: number;
  /** H.264: counts the user's access units; else 0. */
  readonly frameNumber: number;
  /** YUV: pixels; else 0. */
  readonly width: number;
  readonly height: number;
  /** YUV: Y, U and V. ERR_ZELTA_FORMAT, ERR_ZELTA_RELEASED. */
  readonly planes: [Plane, Plane, Plane];
}

// ---- Failures --------------------------------------------------------------------------------

/** A call that had no effect. Arguments of a wrong type are a TypeError instead. */
export class ZeltaError extends Error {
  protected constructor();
  readonly code:
    | 'ERR_ZELTA_ARGUMENT' // an argument, or a member of one, can't be
    | 'ERR_ZELTA_CLOSED' // the recording was closed
    | 'ERR_ZELTA_CONFIGURATION' // members that don't go together; the log says which
    | 'ERR_ZELTA_FORMAT' // a frame of another format has it
    | 'ERR_ZELTA_JOINED' // a recording joins once
    | 'ERR_ZELTA_LEFT' // the recording was left, and a new one is needed
    | 'ERR_ZELTA_MEMORY'
    | 'ERR_ZELTA_NOT_JOINED' // it needs a channel: join first
    | 'ERR_ZELTA_REFUSED' // the engine could not do it; the log says why
    | 'ERR_ZELTA_RELEASED' // the frame was released
    | 'ERR_ZELTA_SESSION' // a SessionError
    | 'ERR_ZELTA_SYSTEM' // the system has refused something
    | 'ERR_ZELTA_UNKNOWN'; // of a newer library
  /** Which value was wrong and what would be right; may be empty. */
  readonly detail: string;
}

/** The session failed: thrown by a loop over the events, when it has had all of them. */
export class SessionError extends ZeltaError {
  private constructor();
  readonly code: 'ERR_ZELTA_SESSION';
  /** What ended the session. */
  readonly event: ErrorEvent;
}

// ---- Recording -------------------------------------------------------------------------------

/**
 * Records one channel; a new one is needed for the next. From the join until it was left or closed it
 * keeps the process alive.
 *
 * `for await (const event of recording)` hands out its events. Once a left event, or an error that
 * ends the session, is handed out, the recording was left; what waits is still handed out, then the
 * loop ends, with a SessionError where it was an error. It ends after leave() as well, and at once
 * after close(). A loop that is broken out of may be begun again; of several each event goes to one.
 * Where nobody takes that event, the recording stays joined, until it is left or closed.
 */
export class Recording implements AsyncIterable<Event> {
  /**
   * Nothing is started yet. `queueBytes`: what frames may hold that wait or weren't released; those
   * beyond it are dropped, and told as a dropped event. 0: 64 MiB.
   */
  constructor(options: { appId: string; queueBytes?: number });

  /**
   * Prepares the folder and starts the recorder; a joined or an error event follows. `channelId`: 1 to
   * 64 bytes, a part of the folder's name. ERR_ZELTA_ARGUMENT, ERR_ZELTA_CONFIGURATION and
   * ERR_ZELTA_REFUSED, after which it may be tried again, ERR_ZELTA_JOINED, ERR_ZELTA_LEFT,
   * ERR_ZELTA_CLOSED.
   */
  join(channelId: string, config?: Config): void;

  /** The recording folder, from the join on, also after close(). ERR_ZELTA_NOT_JOINED. */
  readonly folder: string;

  // These: ERR_ZELTA_NOT_JOINED, ERR_ZELTA_LEFT, ERR_ZELTA_CLOSED, ERR_ZELTA_REFUSED.

  /** Arranges the users on the mixed picture. ERR_ZELTA_ARGUMENT. */
  setLayout(layout: Layout): void;
  /** Shows the image (png or jpeg) in place of a user's video; null: no image any more. */
  setUserBackground(uid: number, image: string | null): void;
  /** Starts to record, with triggerMode 1. */
  startService(): void;
  /** Records no more until startService(), with triggerMode 1. */
  stopService(): void;

  /**
   * What is logged from here on, in all recordings of the process; also before the join, and until
   * close(). It waits for a leave that runs.
   */
  setLogLevel(level: LogLevel): void;

  [Symbol.asyncIterator](): AsyncGenerator<Event, void, undefined>;

  /**
   * Ends the session, within half a second: what waits can still be taken, then loops end. Of one that
   * was left, also by itself, or closed it does nothing; commands are refused from the call on.
   * Rejected with ERR_ZELTA_NOT_JOINED, ERR_ZELTA_REFUSED.
   */
  leave(): Promise<void>;

  /**
   * Leaves, and drops the events that wait; fulfilled when the recorder has completed its files, after
   * 13 s at most. More than one does nothing more. Frames that somebody refers to stay as they are.
   */
  close(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

// Where the compiler knows `using`: it releases and closes.
declare global {
  interface SymbolConstructor {
    readonly dispose: unique symbol;
    readonly asyncDispose: unique symbol;
  }
}
export {};
