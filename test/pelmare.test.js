'use strict';
// Bytes, pieces and socket lines are checked through the add-on in messaging and bare-socket tests;
// here what no Vuser test reaches: split requests, many, close, bad input, the command line.
const test = require('node:test');
const assert = require('node:assert');
const net = require('node:net');
const path = require('node:path');
const { once } = require('node:events');
const { spawn } = require('node:child_process');
const pelmare = require('../tools/pelmare');

const it = (name, body) => test(name, { timeout: 10000 }, body);
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
async function waitFor(done, seen = () => '') {
  for (const end = Date.now() + 3000; !done(); await sleep(5)) {
    if (Date.now() > end) throw new Error(`gave up waiting; have ${JSON.stringify(seen())}`);
  }
}

async function withService(body) {
  const problems = [];
  const service = await pelmare.start({ log: (text, kind) => kind === 'problem' && problems.push(text) });
  try { await body(service, problems); } finally { await service.close(); }
}

async function client(port) {
  const sock = net.connect(port, '127.0.0.1').setNoDelay(true);
  await once(sock, 'connect');
  const c = { sock, bytes: Buffer.alloc(0), ended: false, text: () => c.bytes.toString() };
  sock.on('data', (d) => (c.bytes = Buffer.concat([c.bytes, d])));
  sock.on('end', () => (c.ended = true));
  c.lines = async (n) => (await waitFor(() => c.text().split('\n').length > n, c.text), c.text().split('\n').slice(0, n));
  c.send = (...requests) => sock.write(requests.map((r) => JSON.stringify(r) + '\n').join(''));
  return c;
}

it('requests are reassembled from any split; echo, delay, many and silent answer as asked', () =>
  withService(async (service) => {
    const c = await client(service.port);
    const bytes = Buffer.from(JSON.stringify({ messageId: -5, op: 'delay', ms: 60, data: 'grüß' }) + '\n');
    const cut = bytes.indexOf('ü') + 1; // inside the two-byte character
    const start = Date.now();
    for (const piece of [bytes.subarray(0, 9), bytes.subarray(9, cut), bytes.subarray(cut)]) {
      c.sock.write(piece);
      await sleep(15);
    }
    c.send({ messageId: 1, op: 'silent' }, { messageId: 3, op: 'many', count: 2, data: [1] }, { messageId: 4, op: 'echo' });
    const lines = await c.lines(4);
    assert.ok(Date.now() - start >= 85);
    assert.deepStrictEqual(lines, [
      '{"messageId":3,"socketId":"","responseType":0,"op":"many","seq":0,"data":[1]}',
      '{"messageId":3,"socketId":"","responseType":0,"op":"many","seq":1,"data":[1]}',
      '{"messageId":4,"socketId":"","responseType":0,"op":"echo","data":null}',
      '{"messageId":-5,"socketId":"","responseType":0,"op":"delay","data":"grüß"}',
    ]);
    assert.deepStrictEqual(service.requests.map((r) => r.messageId), [-5, 1, 3, 4]);
    await sleep(30);
    assert.strictEqual(c.text().split('\n').length, 5, 'nothing answers the silent request');
  }));

it('close ends the connection, answering first when the request has data', () =>
  withService(async (service) => {
    const [a, b] = await Promise.all([client(service.port), client(service.port)]);
    a.send({ messageId: 1, op: 'close', data: 'bye' }, { messageId: 2, op: 'echo' });
    b.send({ messageId: 3, op: 'delay', ms: 500 }, { messageId: 4, op: 'close', afterMs: 40 });
    await waitFor(() => a.ended && b.ended && service.connections() === 0);
    assert.strictEqual(a.text(), '{"messageId":1,"socketId":"","responseType":0,"op":"close","data":"bye"}\n');
    assert.strictEqual(b.text(), '');
  }));

it('garbage lines, bad requests and dropped clients leave the service serving', () =>
  withService(async (service, problems) => {
    const gone = await client(service.port);
    gone.send({ messageId: 1, op: 'delay', ms: 20 }, { messageId: 2, op: 'socketOpen', socketId: 's' },
      { messageId: 3, op: 'socketPush', socketId: 's', lines: [1], count: 9, intervalMs: 5 });
    gone.sock.destroy();
    const c = await client(service.port);
    c.sock.write('garbage\n[1]\n{"op":"echo"}\n{"messageId":"7","op":"echo"}\n\n');
    c.send({ messageId: 8, op: 'nope' }, { messageId: 9, op: 'delay', ms: -1 }, { messageId: 10, op: 'echo' });
    const answers = (await c.lines(3)).map((l) => JSON.parse(l));
    assert.deepStrictEqual(answers.map((a) => [a.messageId, typeof a.error]), [[8, 'string'], [9, 'string'], [10, 'undefined']]);
    assert.strictEqual(problems.length, 5);
    await waitFor(() => service.connections() === 1);
  }));

it('command line prints its address and stops on SIGTERM', async () => {
  const child = spawn(process.execPath, [path.join(__dirname, '../tools/pelmare/index.js'), '--port', '0']);
  const [out] = await once(child.stdout, 'data');
  const c = await client(Number(String(out).match(/^pelmare listening on 127\.0\.0\.1:(\d+)\n$/)[1]));
  c.send({ messageId: 1, op: 'echo', data: 'cli' });
  assert.match((await c.lines(1))[0], /"data":"cli"/);
  child.kill('SIGTERM');
  assert.deepStrictEqual(await once(child, 'exit'), [0, null]);
});
