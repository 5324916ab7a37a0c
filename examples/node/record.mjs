// SPDX-License-Identifier: Apache-2.0
// Records three seconds of the channel "meeting" below the current folder. The argument is a
// configuration file that names the channel server. Exit status 0: recorded, 1: not.
//     node record.mjs server.json
import { Recording } from 'zelta-recording';

const recording = new Recording({ appId: 'my-app' });
let joined = false;
let enough;
try {
  recording.join('meeting', { cfgFilePath: process.argv[2] });
  enough = setTimeout(() => recording.leave(), 20_000); // nobody answers
  for await (const event of recording) {
    switch (event.type) {
      case 'joined':
        joined = true;
        clearTimeout(enough);
        enough = setTimeout(() => recording.leave(), 3000);
        break;
      case 'userJoined':
        console.log(`user ${event.uid} is recorded in ${event.storageDir}`);
        break;
    }
  }
} catch (error) {
  joined = false;
  console.error(error.message);
} finally {
  clearTimeout(enough);
  await recording.close(); // the files are complete
}
process.exitCode = joined ? 0 : 1;
