// SPDX-License-Identifier: Apache-2.0
// Prints how loud the users of the channel "meeting" are and how bright their pictures, from the
// decoded frames; no media is written. The argument is a configuration file that names the channel
// server. Ends after a hundred frames.
//     node frames.mjs server.json
import { DecodeAudio, DecodeVideo, Recording } from 'zelta-recording';

function loudness(samples) {
  const squares = samples.reduce((sum, sample) => sum + (sample / 32768) ** 2, 0);
  return `${(10 * Math.log10(squares / samples.length)).toFixed(1)} dBFS`;
}

function brightness([{ data, stride, width, height }]) {
  let sum = 0;
  for (let y = 0; y < height; ++y) {
    for (const luma of data.subarray(y * stride, y * stride + width)) sum += luma;
  }
  return `brightness ${(sum / width / height).toFixed(1)}`;
}

const recording = new Recording({ appId: 'my-app' });
let frames = 0;
try {
  recording.join('meeting', {
    cfgFilePath: process.argv[2],
    decodeAudio: DecodeAudio.PCM_FRAMES,
    decodeVideo: DecodeVideo.YUV_FRAMES,
  });
  for await (const event of recording) {
    if (event.type !== 'audioFrame' && event.type !== 'videoFrame') continue;
    const what = event.type === 'audioFrame' ? loudness(event.samples) : brightness(event.planes);
    console.log(`user ${event.uid}: ${what}`);
    event.release(); // at once, because there is room for so many alone
    if (++frames === 100) break;
  }
} finally {
  await recording.close();
}
process.exitCode = frames === 100 ? 0 : 1;
