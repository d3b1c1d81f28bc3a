'use strict';
const test = require('node:test');
const assert = require('node:assert');
const net = require('node:net');
const path = require('node:path');
const { once } = require('node:events');
const { spawn } = require('node:child_process');
const pelmare = require('../tools/pelmare');

const it = (name, body) => test(name, { timeout: 10000 }, body);
// The add-on's own header pattern.
const header = /"messageId":\s*(-?\d+).*?"socketId":\s*"(-?\w+)?".*?"responseType":\s*(\d+)/i;
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
async function waitFor(done, seen = () => '') {
  for (const end = Date.now() + 3000; !done(); await sleep(5)) {
    if (Date.now() > end) throw new Error(`gave up waiting; have ${JSON.stringify(seen())}`);
  }
}

async function withService(body) {
  const problems = [];
  const service = await pelmare.start({ log: (text, kind) => kind === 'problem' && problems.push(text) });
  try {
    await body(service, problems);
  } finally {
    await service.close();
  }
}

async function client(port) {
  const sock = net.connect(port, '127.0.0.1').setNoDelay(true);
  await once(sock, 'connect');
  const c = { sock, bytes: Buffer.alloc(0), reads: 0, ended: false, text: () => c.bytes.toString() };
  sock.on('data', (d) => ((c.bytes = Buffer.concat([c.bytes, d])), c.reads++));
  sock.on('end', () => (c.ended = true));
  c.lines = async (n) => {
    await waitFor(() => c.text().split('\n').length > n, c.text);
    return c.text().split('\n').slice(0, n);
  };
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
    assert.deepStrictEqual(header.exec(lines[3]).slice(1), ['-5', undefined, '0']);
    assert.deepStrictEqual(service.requests.map((r) => r.messageId), [-5, 1, 3, 4]);
    await sleep(30);
    assert.strictEqual(c.text().split('\n').length, 5, 'nothing answers the silent request');
  }));

it('badLine and raw write exactly the bytes asked, in pieces when asked', () =>
  withService(async (service) => {
    const c = await client(service.port);
    const long = 'y'.repeat(6000);
    c.send({ messageId: 1, op: 'badLine', line: 'not json' }, { messageId: 2, op: 'badLine', line: '' },
      { messageId: 3, op: 'badLine', line: '{"messageId":4294967296,"socketId":"","responseType":0}', data: 'done' });
    await c.lines(4);
    const reads = c.reads;
    c.send({ messageId: 4, op: 'raw', text: 'ä\n{"a":1}', chunk: 1, intervalMs: 10, data: 0 });
    await c.lines(6);
    assert.ok(c.reads - reads >= 3, `raw pieces arrived in ${c.reads - reads} reads`);
    c.send({ messageId: 5, op: 'raw', text: `${long}\n` });
    await waitFor(() => c.text().endsWith(`${long}\n`));
    assert.strictEqual(c.text(), 'not json\n\n{"messageId":4294967296,"socketId":"","responseType":0}\n' +
      '{"messageId":3,"socketId":"","responseType":0,"op":"badLine","data":"done"}\n' +
      `ä\n{"a":1}{"messageId":4,"socketId":"","responseType":0,"op":"raw","data":0}\n${long}\n`);
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

it('bare socket lines follow their answer, in order, and stop at socketClose', () =>
  withService(async (service) => {
    const c = await client(service.port);
    c.send({ messageId: 1, op: 'socketOpen', socketId: '-ws_1' },
      { messageId: 2, op: 'socketPush', socketId: '-ws_1', lines: [{ a: 1 }, 'two'], rawLines: ['plain'], count: 4 },
      { messageId: 3, op: 'socketPush', socketId: '-ws_1', lines: [0], count: 100, intervalMs: 20 });
    assert.deepStrictEqual(await c.lines(8), [
      '{"messageId":1,"socketId":"","responseType":0,"op":"socketOpen","data":{"socketId":"-ws_1"}}',
      '{"messageId":2,"socketId":"","responseType":0,"op":"socketPush","data":null}',
      '{"messageId":-1,"socketId":"-ws_1","responseType":1,"seq":0,"data":{"a":1}}',
      '{"messageId":-1,"socketId":"-ws_1","responseType":1,"seq":1,"data":"two"}',
      'plain',
      '{"messageId":-1,"socketId":"-ws_1","responseType":1,"seq":3,"data":{"a":1}}',
      '{"messageId":3,"socketId":"","responseType":0,"op":"socketPush","data":null}',
      '{"messageId":-1,"socketId":"-ws_1","responseType":1,"seq":0,"data":0}',
    ]);
    c.send({ messageId: 4, op: 'socketClose', socketId: '-ws_1' },
      { messageId: 5, op: 'socketPush', socketId: '-ws_1', lines: [1] }, { messageId: 6, op: 'socketOpen', socketId: 'a b' });
    await waitFor(() => c.text().includes('"messageId":6'), c.text);
    await sleep(60);
    const tail = c.text().trim().split('\n').slice(-4);
    assert.deepStrictEqual(tail.slice(0, 2), ['{"messageId":4,"socketId":"","responseType":0,"op":"socketClose","data":null}',
      '{"messageId":-1,"socketId":"-ws_1","responseType":1,"event":"close"}']);
    assert.deepStrictEqual(tail.slice(2).map((l) => [JSON.parse(l).messageId, typeof JSON.parse(l).error]), [[5, 'string'], [6, 'string']]);
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
