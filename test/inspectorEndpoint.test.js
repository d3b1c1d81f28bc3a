'use strict';
// The debugger endpoint against clients written elsewhere: fetch for discovery, the ws package
// for the WebSocket. The endpoint runs on a thread of its own inside this process.
const test = require('node:test');
const assert = require('node:assert');
const { once } = require('node:events');
const path = require('node:path');
const WebSocket = require('ws');

const { buildDir } = require('../lib/buildDir');
const endpoint = require(path.join(buildDir(), 'kesh-inspector-echo.node'));

test('discovery, echo, refusal and both close handshakes with foreign clients', async () => {
  const port = endpoint.start(0);
  const url = `ws://127.0.0.1:${port}/echo-target`;
  const json = async (route) => (await fetch(`http://127.0.0.1:${port}/json/${route}`)).json();
  assert.deepStrictEqual((await json('list')).map((t) => [t.id, t.title, t.url, t.webSocketDebuggerUrl]),
    [['echo-target', 'echo', 'file:///echo.js', url]]);
  assert.deepStrictEqual(await json('version'), { Browser: 'kesh', 'Protocol-Version': '1.1' });

  const client = new WebSocket(url);
  await once(client, 'open');
  // Short, 16-bit and 64-bit length forms, and text that is not ASCII.
  for (const text of ['hello', 'é ü ✓', 'm'.repeat(300), 'x'.repeat(70000)]) {
    client.send(text);
    const [data, isBinary] = await once(client, 'message');
    assert.deepStrictEqual([data.toString(), isBinary], [text, false]);
  }
  const [error] = await once(new WebSocket(url), 'error');
  assert.match(error.message, /Unexpected server response: 400/);
  client.close(1000);
  assert.deepStrictEqual(await once(client, 'close'), [1005, Buffer.alloc(0)]); // our close frame carries no status
  const last = new WebSocket(url);
  await once(last, 'open');
  endpoint.requestStop();
  assert.deepStrictEqual(await once(last, 'close'), [1005, Buffer.alloc(0)]);
  assert.deepStrictEqual(endpoint.join(), ['start', 'message 5', 'message 9', 'message 300',
    'message 70000', 'end', 'start', 'end', 'done']);
});
