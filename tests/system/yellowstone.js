// SPDX-License-Identifier: MIT
// Prints the format of the video and then a number of documents, one per line, with the RTSP client of npm in the folder
// of the first argument. The other arguments are the URL and the number.
//
// The client knows one track, on the first two channels of the connection, and takes the video for it. Here its SETUP
// puts the video on other channels, and the metadata on those.
"use strict";

const [folder, url, count] = process.argv.slice(2);
const { RtspClient } = require(folder);

const VIDEO_CHANNELS = "RTP/AVP/TCP;unicast;interleaved=2-3";
const METADATA_CHANNELS = "RTP/AVP/TCP;unicast;interleaved=0-1";

const client = new RtspClient("", "");
const request = client.request.bind(client);

client.request = (method, headers, target) => {
  if (method !== "SETUP") {
    return request(method, headers, target);
  }
  return request("SETUP", { Transport: VIDEO_CHANNELS }).then((reply) =>
    request("SETUP", { Transport: METADATA_CHANNELS, Session: reply.Session.split(";")[0] }, `${url}/stream=1`));
};

// The client takes each packet for one with an extension of four bytes, which are those before its payload.
function payloadOf(packet) {
  const { payload } = packet;
  return Buffer.from(payload.buffer, payload.byteOffset - 4, payload.length + 4);
}

let document = [];
let left = Number(count);

client.on("data", (channel, data, packet) => {
  document.push(payloadOf(packet));
  if (packet.marker && left > 0) {
    process.stdout.write(Buffer.concat([...document, Buffer.from("\n")]));
    document = [];
    left -= 1;
    if (left === 0) {
      process.exit(0);
    }
  }
});

client.connect(url).then(({ format }) => {
  process.stdout.write(`${format}\n`);
  return client.play();
}).catch((error) => {
  process.stderr.write(`${error.stack}\n`);
  process.exit(1);
});
