// SPDX-License-Identifier: Apache-2.0
// What queue_frames does, in Node.js, for frames.py. Arguments: a folder to record in, how many frames, and
// "--look" where the arrays of each are asked for. Prints JSON: nanoseconds of processor a frame, of the
// process, and frames dropped; of one thread Node.js doesn't tell.
import { DecodeAudio, DecodeVideo, Recording } from 'zelta-recording';

const [folder, count, look] = process.argv.slice(2);
const recording = new Recording({ appId: 'bench', queueBytes: 2 ** 30 });
recording.join('bench', {
  recordFileRootDir: folder,
  decodeAudio: DecodeAudio.PCM_FRAMES,
  decodeVideo: DecodeVideo.YUV_FRAMES,
});
let seen = 0;
let dropped = 0;
let begin;
for await (const event of recording) {
  if (event.type === 'audioFrame' || event.type === 'videoFrame') {
    if (seen++ === 0) begin = process.cpuUsage();
    if (look) event.type === 'audioFrame' ? event.samples : event.planes;
    event.release();
  } else if (event.type === 'dropped') {
    dropped += Number(event.audioFrames) + Number(event.videoFrames);
  }
  if (seen + dropped >= Number(count)) break;
}
const used = process.cpuUsage(begin);
await recording.close();
console.log(JSON.stringify({ process: ((used.user + used.system) * 1000) / (seen - 1), dropped }));
