// SPDX-License-Identifier: Apache-2.0
// Records all users in one picture, as a grid that is drawn anew whenever one comes or goes. Arguments: a
// configuration file that names the channel server, and for how many seconds.
//     node layout.mjs server.json 10
import { MixedFile, Recording } from 'zelta-recording';

function grid(users) {
  const columns = Math.ceil(Math.sqrt(users.length));
  const rows = Math.ceil(users.length / columns);
  return users.map((uid, place) => ({
    uid,
    x: (place % columns) / columns,
    y: Math.floor(place / columns) / rows,
    width: 1 / columns,
    height: 1 / rows,
    fit: true,
  }));
}

const [cfgFilePath, seconds] = process.argv.slice(2);
const recording = new Recording({ appId: 'my-app' });
const users = new Set();
recording.join('meeting', {
  cfgFilePath,
  isMixingEnabled: true,
  mixedVideoAudio: MixedFile.HIGH,
  mixResolution: '1280,720,15,1000',
});
const enough = setTimeout(() => recording.leave(), Number(seconds) * 1000);
try {
  for await (const event of recording) {
    if (event.type === 'userJoined') users.add(event.uid);
    else if (event.type === 'userOffline') users.delete(event.uid);
    else continue;
    recording.setLayout({ regions: grid([...users]) });
    console.log(`${users.size} users: ${[...users]}`);
  }
} finally {
  clearTimeout(enough);
  await recording.close();
}
console.log(`recorded in ${recording.folder}`);
