'use strict';
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir, driveVuser } = require('./helpers');

const dir = scriptDir({
  'requests.js': `
    const req = (id, op, extra = {}) => JSON.stringify({ messageId: id, op, ...extra }) + '\\n';
    const say = (...a) => console.log('M ' + a.map((x) => typeof x === 'string' ? x : String(JSON.stringify(x))).join(' '));
    const attempt = (label, f) => { try { say(label, f()); } catch (e) { say(label, e instanceof Error ? e.constructor.name + ': ' + e.message : 'plain ' + e.message); } };
    attempt('before init', () => _send(1, req(1, 'echo'), () => {}));
    attempt('port text', () => _initNetworking('x', '127.0.0.1'));
    attempt('port range', () => _initNetworking(70000, '127.0.0.1'));
    attempt('host name', () => _initNetworking(args.port, 'localhost'));
    _initNetworking(args.port, '127.0.0.1');
    say('sync', _sendSync(1, req(1, 'echo', { data: 'first' })).data);
    _enableRunningAsyncCallbacks();
    function callbacks() {
      _send(2, req(2, 'echo', { data: 'async' }), (m) => say('answer', m.data));
      _send(3, req(3, 'badLine', { line: '{"messageId":3,"socketId":"","responseType":0, no json' }), (m) => say('not json', m));
      _send(4, req(4, 'delay', { ms: 30, data: 'first callback' }), (m) => say('dup id', m.data));
      _send(4, req(99, 'silent'), () => say('second callback never runs'));
      _send(6, req(6, 'raw', { text: '{"messageId":6,"socketId":"","responseType":0,"data":"bytes"}\\n', chunk: 1 }), (m) => say('byte by byte', m.data));
    }
    function lines() {
      _send(7, req(7, 'raw', { text: '{"messageId":71,"socketId":"","responseType":0}\\n{"messageId":72,"socketId":"","responseType":0}\\n{"messageId":73,"socketId":"","responseType":0}\\n' }), () => {});
      for (const id of [71, 72, 73]) _send(id, req(-id, 'silent'), () => say('line', id));
      _send(30, req(30, 'raw', { text: '{"messageId":30,"socketId":"","responseType":0,"data":"early"}\\n{"messageId":30,"socketId":"","responseType":0,"data":"later, and longer"}\\n' }), (m) => say('one id twice', m.data));
    }
    function badLines() {
      for (const line of ['', 'no header here', '{"messageId":8,"socketId":"","responseType":2}', '{"messageId":99999999999,"socketId":"","responseType":0}']) {
        _sendSyncNoWait(-1, req(-1, 'badLine', { line }));
      }
      for (const [id, written] of [[20, '20.5'], [21, '21e309'], [0, '-0.5']]) {
        const line = '{"messageId":' + written + ',"socketId":"","responseType":0,"data":"fraction"}';
        _send(id, req(id, 'badLine', { line, data: 'integer' }), (m) => say('id ' + id + ' got', m.data));
      }
      _send(9, req(9, 'echo', { data: 'still up' }), (m) => say('after bad lines', m.data));
    }
    function clearing() {
      _send(10, req(10, 'delay', { ms: 40 }), () => say('cleared callback ran'));
      _send(-11, req(-11, 'silent'), () => {});
      _clearResponsePendingMessages();
      _clearResponsePendingMessages();
      _sendSyncNoWait(12, req(12, 'delay', { ms: 10 }));
      say('no wait returned');
    }
    function duringSync() {
      _disableRunningAsyncCallbacks();
      _send(13, req(13, 'echo'), () => say('async answer after sync'));
      const answer = _sendSync(14, req(14, 'delay', { ms: 30, data: 'sync answer' }));
      say(answer.data);
      attempt('failing line in a wait', () => _sendSync(15, req(15, 'badLine', { line: '{"messageId":15,"socketId":"","responseType":7}' })));
      attempt('no JSON answer', () => _sendSync(16, req(16, 'badLine', { line: '{"messageId":16,"socketId":"","responseType":0,' })));
    }
    function blockForever() {
      attempt('stopped while waiting', () => _sendSync(17, req(17, 'silent')));
    }`,
  'uses-lib.js': `
    const pelmare = keshRequire(${JSON.stringify(path.join(__dirname, '..', 'lib', 'vuser.js'))}, __dirname);
    pelmare.connect(args.port);
    const first = pelmare.sendSync({ op: 'echo', data: 'sync' });
    console.log('L sync ' + first.data + ' ' + first.messageId);
    async function flow() {
      const [a, b] = await Promise.all([pelmare.send({ op: 'delay', ms: 20, data: 'a' }), pelmare.send({ op: 'echo', data: 'b' })]);
      pelmare.sendNoWait({ op: 'echo', data: 'ignored' });
      await pelmare.sleep(10);
      console.log('L async ' + a.data + b.data + ' ' + [a.messageId, b.messageId].join(','));
      const seen = [];
      const socket = await pelmare.openSocket('ws_lib', (line) => { seen.push(line.data); if (seen.length === 3) socket.release(); });
      const waited = socket.wait(5000);
      await pelmare.send({ op: 'socketPush', socketId: 'ws_lib', lines: ['x', 'y', 'z'], intervalMs: 5 });
      await waited;
      const timedOut = await socket.wait(10).then(() => 'no', (e) => 'timed out ' + e);
      console.log('L socket ' + seen.join('') + ' ' + timedOut + ' ' + (await socket.close()));
    }`,
  'refused.js': `_initNetworking(args.port, '127.0.0.1'); console.log('R returned');`,
  'busy.js': `
    const req = (id) => JSON.stringify({ messageId: id, op: 'echo' }) + '\\n';
    _initNetworking(args.port, '127.0.0.1');
    _enableRunningAsyncCallbacks();
    function burst() {
      _sendSync(1000, req(1000));
      const next = (id) => _send(id, req(id), () => (id < 50 ? next(id + 1) : console.log('B done')));
      next(1);
    }`,
  'bound.js': `
    const tell = (...a) => keshConsole('V ' + a.join(' '), 'Info');
    _initNetworking(args.port, '127.0.0.1');
    _enableRunningAsyncCallbacks();
    function go() {
      _registerNewBareSocket('ws_nul', (line) => tell('socket line', JSON.stringify(line)));
      _send(1, '{"messageId":1}\\n', (m) => tell('answer 1', m.data));
      _send(2, '{"messageId":2}\\n', (m) => tell('answer 2', m.data.length, m.data[0]));
    }`,
});
const script = (name) => path.join(dir, name);
// One Vuser of script `name` against the stand-in service, which must end cleanly.
function drive(name, calls, options = {}) {
  const r = driveVuser(script(name), calls, { pelmare: true, ...options });
  assert.strictEqual(r.status, 0, r.stderr);
  return r;
}

test('messaging: connection checks, answers, framing, bad lines, blocking requests', () => {
  const r = drive('requests.js', [['callbacks'], 100, ['lines'], 50, ['badLines'], 50, ['clearing'], 80,
    ['duringSync'], 50, ['blockForever'], 50]);
  const said = r.stdout.split('\n').filter((l) => l.startsWith('M ')).map((l) => l.slice(2));
  assert.deepStrictEqual(said.slice(0, 5), [
    'before init Error: _send: not connected to Pelmare (call _initNetworking first, or again after the connection closed)',
    'port text Error: _initNetworking: the port must be a number',
    'port range Error: _initNetworking: port out of range: 70000',
    'host name Error: _initNetworking: the host must be a dotted IPv4 address: localhost',
    'sync first',
  ]);
  const rest = said.slice(5);
  for (const want of ['answer async', 'not json undefined', 'dup id first callback', 'byte by byte bytes',
    'after bad lines still up', 'id 20 got integer', 'id 21 got integer', 'id 0 got integer', 'no wait returned',
    'stopped while waiting Error: Thread aborted during run', /^no JSON answer Error: Error parsing response of a SendSync request /,
    /^failing line in a wait plain Uncaught Error: .*received message with unknown message type/,
  ]) assert.ok(rest.some((l) => (typeof want === 'string' ? l === want : want.test(l))), `${want}\n${rest.join('\n')}`);
  const order = (...ls) => ls.map((l) => rest.indexOf(l)).every((at, i, all) => at >= 0 && (i === 0 || at > all[i - 1]));
  // An answer that came during the wait runs only once the blocking call has returned.
  assert.ok(order('sync answer', 'async answer after sync') && order('line 71', 'line 72', 'line 73'), rest.join('\n'));
  // Both calls see the later line; it is the longer, so a count given back by what the message
  // holds rather than by what each line charged falls below zero, which Node 24's V8 stops on.
  assert.deepStrictEqual(rest.filter((l) => l.startsWith('one id twice')), ['one id twice later, and longer', 'one id twice later, and longer']);
  assert.ok(!rest.some((l) => /^(second callback never runs|cleared callback ran|id \d+ got fraction)$/.test(l)), rest.join('\n'));

  const log = r.lines.join('\n');
  for (const text of ['Error NetworkManager - (', 'received response is empty', 'no message info found in response',
    'received message with unknown message type found in response: {"messageId":8',
    'message header number does not fit 32 bits in response: ',
    ...['20.5', '21e309', '-0.5'].map((id) => `message header number is not an integer in response: {"messageId":${id},`),
    ...[10, 12].map((id) => `received message id [${id}] but it didn't match any outgoing message`),
    'no pending messages left to clear', 'Vuser [1] thread aborted during sync request - exiting',
  ]) assert.ok(log.includes(text), text);
  const cleared = /clearing the next pending message\(s\): \[ ((?:\d+ )+)\]/.exec(log)[1].split(' ');
  assert.ok(cleared.includes('10') && cleared.includes('4294967285'), cleared.join());
});

test('the Vuser-side library: ids chosen for the script, promises, blocking and written-only sends', () => {
  assert.match(drive('uses-lib.js', [['flow'], 150]).stdout, /L sync sync 1\n[^]*L async ab 2,3\nL socket xyz timed out undefined closed by the script\n/);
});

test('a refused connection keeps the script waiting until the Vuser is stopped, without a hang', () => {
  const r = scenario(`
    const lines = [];
    k.onLogMessage((l) => lines.push(l));
    const server = require('net').createServer().listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(async () => {
        k.createKeshThread(1, ${JSON.stringify(script('refused.js'))}, JSON.stringify({ port }));
        let settled = 'pending';
        k.startKeshThread(1).then((v) => { settled = v; });
        await until(() => lines.some((l) => /failed connecting to Pelmare: connection refused/.test(l)), 'the refusal', 15000);
        await sleep(200); // time to return, had the refusal ended the wait
        console.log('R before stop ' + settled);
        k.stopKeshThread(1);
        await sleep(50);
        k.destroyKeshThreads();
      });
    });`);
  assert.strictEqual(r.status, 0, r.stderr);
  assert.match(r.stdout, /R before stop pending\n[^]*R returned\n/);
});

test('a busy Vuser costs no log line at level info; at debug its lines come as before', () => {
  const [quiet, loud] = ['info', 'debug'].map((level) => drive('busy.js', [['burst'], 100], { level }));
  for (const r of [quiet, loud]) assert.match(r.stdout, /B done\n/);
  assert.deepStrictEqual(quiet.lines.filter((l) => /^(Debug|trace) /.test(l)), []);
  const count = (re) => loud.lines.filter((l) => re.test(l)).length;
  assert.ok(count(/^Debug VuserThread - .* finished running async callback$/) >= 50);
  assert.ok(count(/^trace VuserThread - .* execute async callbacks function$/) > 0);
  assert.strictEqual(count(/^Debug NetworkManager - .* waiting for response from request id: 1000$/), 1);
});

test('lines from a service socket: NUL bytes kept, a line at the 64 MiB bound delivered, one beyond it dropped', () => {
  const r = scenario(`
    const lines = [];
    k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));
    // A line of exactly n bytes, without its end, that routes to request id.
    const answerOf = (id, n, head = '{"messageId":' + id + ',"socketId":"","responseType":0,"data":"') => head + 'y'.repeat(n - head.length - 2) + '"}';
    const server = require('node:net').createServer((socket) => {
      let seen = '';
      socket.on('data', (d) => {
        if ((seen += d).split('\\n').length < 3) return;
        socket.write('{"messageId":-1,"socketId":"ws_nul","responseType":1}\\u0000after NUL\\n' +
          '\\u0000{"messageId":-1,"socketId":"ws_nul","responseType":1}\\n' + answerOf(1, 2 ** 26 + 1) + '\\n' +
          '{"messageId":1,"socketId":"","responseType":0,"data":"small"}\\n' + answerOf(2, 2 ** 26) + '\\n');
      });
    }).listen(0, '127.0.0.1', async () => {
      k.createKeshThread(1, ${JSON.stringify(script('bound.js'))}, JSON.stringify({ port: server.address().port }));
      await k.startKeshThread(1);
      k.runFunctionFromScript(1, 'go', '');
      await until(() => lines.some((l) => l.includes('V answer 2')), 'answer 2', 20000);
      k.stopKeshThread(1);
      k.destroyKeshThreads();
      server.close();
      console.log('RESULT' + JSON.stringify(lines.filter((l) => / V |dropped/.test(l))));
    });`, { timeout: 60000 });
  assert.strictEqual(r.status, 0, r.stderr);
  const lines = JSON.parse(/RESULT(.*)\n/.exec(r.stdout)[1]);
  const said = lines.map((l) => l.replace(/^(\w+) (\w+ - )?\(\d+\) (Vuser \[1\] )?/, '$1 '));
  assert.deepStrictEqual(said, [
    'Info V socket line "{\\"messageId\\":-1,\\"socketId\\":\\"ws_nul\\",\\"responseType\\":1}\\u0000after NUL"',
    'Info V socket line "\\u0000{\\"messageId\\":-1,\\"socketId\\":\\"ws_nul\\",\\"responseType\\":1}"',
    'Error dropped a received line of 67108865 bytes: longer than 67108864 bytes',
    'Info V answer 1 small',
    `Info V answer 2 ${64 * 1024 * 1024 - 56} y`,
  ]);
});
