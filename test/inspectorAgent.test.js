'use strict';
// A Vuser debugged by real clients: a DevTools-protocol library, Node's own debugger client, and
// raw WebSockets for what those never send.
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir } = require('./helpers');

const dir = scriptDir({
  'debugged.js': `const greeting = 'hi';
function step(param) {
  const local = param.page + '!';
  return local;
}
console.log('main ran ' + greeting);
`,
});
const paths = JSON.stringify({
  cdp: require.resolve('chrome-remote-interface'), ws: require.resolve('ws'), script: path.join(dir, 'debugged.js'),
});

// The child's common part: log lines collected, a Vuser with the debugger on `port`, and a wait
// for the n-th "Debugger listening" line giving [, port, id].
const prelude = `
  const P = ${paths};
  const CDP = require(P.cdp);
  const WebSocket = require(P.ws);
  const lines = [];
  k.setLogLevel('info');
  k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));
  const debugged = (vuser = 1, port = 0) => {
    k.createKeshThread(vuser, P.script, '{}');
    k.initKeshInspector('127.0.0.1', port);
    return k.startKeshThread(vuser);
  };
  const listening = async (n) => {
    const found = () => lines.filter((l) => l.includes('Debugger listening on'));
    await until(() => found().length >= n, 'debugger ready line ' + n, 15000);
    return /ws:\\/\\/127\\.0\\.0\\.1:(\\d+)\\/(\\S+)$/.exec(found()[n - 1]);
  };
  const targets = async (port) => (await fetch('http://127.0.0.1:' + port + '/json/list')).json();
  const finish = (result) => {
    k.destroyKeshThreads();
    console.log('RESULT' + JSON.stringify({ ...result, lines }));
  };
  const fail = (e) => { console.log('FAILED ' + e.stack); process.exit(1); };
`;

function result(r) {
  const match = /RESULT(.*)\n/.exec(r.stdout);
  assert.ok(match, `no result; status ${r.status} ${r.signal}\n${r.stdout}\n${r.stderr}`);
  assert.strictEqual(r.status, 0, r.stderr);
  return JSON.parse(match[1]);
}

test('a DevTools client pauses at start, hits a breakpoint in a run function, reads a local; an exit ends the pause', () => {
  const r = scenario(`${prelude}
    const started = debugged();
    (async () => {
      const [, port, id] = await listening(1);
      const list = await targets(port);
      const client = await CDP({ target: list[0].webSocketDebuggerUrl, local: true });
      const second = await new Promise((resolve) => {
        const ws = new WebSocket(list[0].webSocketDebuggerUrl);
        ws.on('error', (e) => resolve(e.message));
        ws.on('open', () => resolve('opened'));
      });
      const attachedList = await targets(port);
      const parsed = [];
      client.on('Debugger.scriptParsed', (s) => { if (s.url.includes('debugged')) parsed.push(s.url); });
      const nextPause = () => new Promise((resolve) => client.once('Debugger.paused', resolve));
      let pause = nextPause();
      // Some clients send all of these before any answer; the run command releases the script.
      await Promise.all([client.Runtime.enable(), client.Debugger.enable(), client.Runtime.runIfWaitingForDebugger()]);
      const atStart = await pause;
      await client.Debugger.setBreakpoint({ location: { scriptId: atStart.callFrames[0].location.scriptId, lineNumber: 3 } });
      await client.Debugger.resume();
      await started;
      pause = nextPause();
      k.runFunctionFromScript(1, 'step', '{"page":"home"}');
      const { callFrameId } = (await pause).callFrames[0];
      const evaluate = async (expression) => (await client.Debugger.evaluateOnCallFrame({ callFrameId, expression })).result.value;
      const local = await evaluate('local');
      const text = await evaluate("'\\u00e9 \\u2713 \\ud83d\\ude00 ' + String.fromCharCode(0xd800)");
      // The exit-time stop must end the Vuser paused at the breakpoint.
      console.log('RESULT' + JSON.stringify({ id, list, second, attachedList, parsed, local, text,
        atStart: [atStart.reason, atStart.callFrames[0].location.lineNumber] }));
      process.exit(0);
    })().catch(fail);`);
  const out = result(r);
  assert.match(out.id, /^00[0-9a-f]{2}00[0-9a-f]{2}-00[0-9a-f]{2}-40[0-9a-f]{2}-80[0-9a-f]{2}-00[0-9a-f]{2}00[0-9a-f]{2}00[0-9a-f]{2}$/);
  assert.deepStrictEqual(out.list.map((t) => [t.id, t.title, t.type]), [[out.id, 'debugged.js', 'node']]);
  assert.match(out.second, /Unexpected server response: 400/);
  // While attached, the list still shows the target, without the addresses to attach.
  assert.deepStrictEqual(Object.keys(out.attachedList[0]).sort(), ['description', 'faviconUrl', 'id', 'title', 'type', 'url']);
  assert.deepStrictEqual(out.parsed, ['debugged.js']);
  assert.deepStrictEqual(out.atStart, ['Break on start', 0]);
  assert.strictEqual(out.local, 'home!');
  assert.strictEqual(out.text, 'é ✓ 😀 \ud800'); // V8 escapes a lone surrogate itself
  assert.match(r.stdout, /main ran hi\n/);
  assert.match(r.stderr, /^Debugger attached\.\n$/m);
});

test("node's own debugger client: break on start, next, cont, quit; then a stop while attached", () => {
  const r = scenario(`${prelude}
    const { spawn } = require('node:child_process');
    const started = debugged();
    const inspect = (port) => {
      const child = spawn(process.execPath, ['inspect', '127.0.0.1:' + port]);
      const session = { child, out: '', exited: new Promise((r) => child.on('exit', r)) };
      child.stdout.on('data', (d) => { session.out += d; });
      session.send = async (command, pattern, from = session.out.length) => {
        if (command) child.stdin.write(command + '\\n');
        await until(() => pattern.test(session.out.slice(from)), pattern + ' from node inspect', 20000);
      };
      return session;
    };
    (async () => {
      const [, port] = await listening(1);
      const first = inspect(port);
      await first.send('', /Break on start in \\S*debugged\\.js:1\\n> 1 const greeting/);
      // The client says "break in" on Node.js 20 and "step in" from 22 on.
      await first.send('next', /(?:break|step) in \\S*debugged\\.js:6\\n[^]*> 6 console\\.log/);
      await first.send('cont', /debug> $/);
      await started;
      first.child.stdin.write('.exit\\n');
      await first.exited;
      await listening(2);
      // Attached again, and still attached when the Vuser stops: the stop ends the session.
      const second = inspect(port);
      await second.send('', /ok\\n/);
      await sleep(300);
      k.stopKeshThread(1);
      second.child.kill();
      finish({});
    })().catch(fail);`, { timeout: 60000 });
  result(r);
  assert.strictEqual(r.stderr.match(/Debugger attached\.\n/g).length, 2);
});

test('an endpoint that cannot start, a client leaving during a pause, bad text, a stop amid traffic', () => {
  const r = scenario(`${prelude}
    const { spawn } = require('node:child_process');
    (async () => {
      // The port is taken: the script runs without a debugger.
      const busy = require('node:net').createServer();
      await new Promise((r) => busy.listen(0, '127.0.0.1', r));
      await debugged(1, busy.address().port);
      k.stopKeshThread(1);
      busy.close();
      k.destroyKeshThreads();
      await sleep(50); // the logger closes with the batch
      k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));

      // A later Vuser of the same process gets a debugger of its own.
      const started = debugged(2);
      const [, port, id] = await listening(1);
      const url = 'ws://127.0.0.1:' + port + '/' + id;
      const client = await CDP({ target: url, local: true });
      const paused = new Promise((resolve) => client.once('Debugger.paused', resolve));
      await Promise.all([client.Debugger.enable(), client.Runtime.runIfWaitingForDebugger()]);
      await paused;
      await client.close(); // leaves during the pause: the script goes on
      await started;
      await listening(2);

      // Not UTF-8: that message is dropped, the session lives on.
      const ws = new WebSocket(url);
      await new Promise((r) => ws.on('open', r));
      const answer = new Promise((r) => ws.on('message', (m) => r(JSON.parse(m))));
      ws.send(Buffer.from([0x7b, 0xc3, 0x28, 0x7d]), { binary: false });
      ws.send(JSON.stringify({ id: 7, method: 'Runtime.evaluate', params: { expression: 'greeting' } }));
      const evaluated = await answer;
      ws.close();
      await listening(3);

      // A client in another process keeps sending while the Vuser stops. V8 answers the promise
      // that never settles only when the session ends, after the endpoint's thread has gone. The
      // promise is kept reachable, or V8 may answer "Promise was collected" before the stop.
      const flood = spawn(process.execPath, ['-e', \`
        const ws = new (require(\${JSON.stringify(P.ws)}))(\${JSON.stringify(url)});
        const evaluate = (id, expression, awaitPromise) => ws.send(JSON.stringify({ id, method: 'Runtime.evaluate', params: { expression, awaitPromise } }));
        ws.on('open', () => {
          let id = 1;
          evaluate(0, 'globalThis.never = new Promise(() => {})', true);
          setInterval(() => { for (let i = 0; i < 20; i++) evaluate(id++, '6 * 7'); }, 1);
          console.log('flooding');
        });
        ws.on('message', (m) => { if (JSON.parse(m).id === 0) console.log('answered'); });
        ws.on('close', () => process.exit(0));\`]);
      let floodOut = '';
      flood.stdout.on('data', (d) => { floodOut += d; });
      await until(() => floodOut.includes('flooding'), 'the flooding client', 15000);
      await sleep(200);
      k.stopKeshThread(2);
      const floodExit = await new Promise((r) => flood.on('exit', r));
      finish({ evaluated, floodExit, floodOut });
    })().catch(fail);`, { timeout: 60000 });
  const out = result(r);
  assert.match(r.stderr, /^Starting inspector on 127\.0\.0\.1:\d+ failed: address already in use$/m);
  assert.ok(out.lines.some((l) => /^Error KeshInspector - \(\d+\) Vuser \[1\] debugger endpoint 127\.0\.0\.1:\d+ did not start: the script runs without a debugger$/.test(l)));
  assert.strictEqual(r.stdout.match(/main ran hi\n/g).length, 2);
  assert.match(r.stderr, /^Debugger message dropped: it is not valid UTF-8$/m);
  assert.deepStrictEqual(out.evaluated, { id: 7, result: { result: { type: 'string', value: 'hi' } } });
  assert.deepStrictEqual([out.floodExit, out.floodOut], [0, 'flooding\n']);
});

test('only requests naming an address or localhost are served; idle connections lose their places; a stop releases a Vuser waiting for its client', () => {
  const r = scenario(`${prelude}
    const net = require('node:net');
    // One request on a connection of its own: the answer's first line, once a whole 200 answer or
    // an upgrade's head has come, and whether the endpoint closed the connection first.
    const ask = (port, path, host, upgrade = false) => new Promise((resolve) => {
      const socket = net.connect(port, '127.0.0.1');
      let got = '';
      const done = (closed) => { socket.destroy(); resolve({ got: got.split('\\r\\n')[0], closed }); };
      socket.on('connect', () => socket.write('GET ' + path + ' HTTP/1.1\\r\\nHost: ' + host + '\\r\\n' + (upgrade
        ? 'Upgrade: websocket\\r\\nConnection: Upgrade\\r\\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\\r\\nSec-WebSocket-Version: 13\\r\\n'
        : '') + '\\r\\n'));
      socket.on('error', () => {});
      socket.on('data', (d) => {
        got += d;
        const end = got.indexOf('\\r\\n\\r\\n');
        const length = /Content-Length: (\\d+)/.exec(got);
        if (end >= 0 && (got.startsWith('HTTP/1.1 101') || (length && got.length >= end + 4 + Number(length[1])))) done(false);
      });
      socket.on('close', () => done(true));
    });
    const openIdle = (port) => new Promise((resolve) => {
      const socket = net.connect(port, '127.0.0.1', () => {
        const opened = Date.now();
        resolve({ closed: new Promise((r) => socket.on('close', () => r(Date.now() - opened))) });
      }).on('error', () => {});
    });
    debugged();
    (async () => {
      const [, port, id] = await listening(1);
      const hosts = {};
      for (const [name, path, host, upgrade] of [['evilList', '/json/list', 'evil.example'],
        ['evilPortVersion', '/json/version', 'evil.example:' + port], ['evilUpgrade', '/' + id, 'evil.example', true],
        ['addressList', '/json/list', '127.0.0.1:' + port], ['localhostVersion', '/json/version', 'localhost'],
        ['localhostUpgrade', '/' + id, 'localhost:' + port, true]]) hosts[name] = await ask(port, path, host, upgrade);
      await listening(2);
      const closes = [];
      for (let i = 0; i < 100; ++i) closes.push((await openIdle(port)).closed);
      const whileFull = await ask(port, '/json/version', '127.0.0.1');
      const deadline = new Promise((_, reject) => setTimeout(reject, 20000, new Error('idle connections still open after 20 s')).unref());
      const idleMs = await Promise.race([Promise.all(closes), deadline]);
      const afterwards = await ask(port, '/json/version', '127.0.0.1');
      k.stopKeshThread(1); // no client has let the script run yet
      finish({ hosts, whileFull, idleMs, afterwards });
    })().catch(fail);`, { timeout: 60000 });
  const out = result(r);
  const refused = { got: 'HTTP/1.0 400 Bad Request', closed: true };
  const served = { got: 'HTTP/1.0 200 OK', closed: false };
  assert.deepStrictEqual(out.hosts, {
    evilList: refused, evilPortVersion: refused, evilUpgrade: refused, addressList: served, localhostVersion: served,
    localhostUpgrade: { got: 'HTTP/1.1 101 Switching Protocols', closed: false },
  });
  const warning = /^Warning KeshInspector - \(\d+\) debugger endpoint refused a request for host "evil\.example(:\d+)?": only an IP address or localhost is served$/;
  assert.strictEqual(out.lines.filter((l) => warning.test(l)).length, 3);
  // While idle connections hold every place, a client is turned away; once the time-out has
  // closed them, it is served. Those beyond the places were closed at once.
  assert.deepStrictEqual(out.whileFull, { got: '', closed: true });
  assert.strictEqual(out.idleMs.filter((ms) => ms >= 5000).length, 32, out.idleMs.join());
  assert.ok(Math.max(...out.idleMs) < 12000, out.idleMs.join());
  assert.deepStrictEqual(out.afterwards, served);
  assert.match(r.stdout, /main ran hi\n/);
});
