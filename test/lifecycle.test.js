'use strict';
// A Vuser's life in a long-running runner: connection faults stay the Vuser's, a thread the
// system refuses fails only that start, a stop ends even a script that never yields.
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { scenario, scriptDir } = require('./helpers');

const dir = scriptDir({
  'faults.js': `
    const req = (id, op) => JSON.stringify({ messageId: id, op }) + '\\n';
    const say = (t) => keshConsole('F ' + t, 'Info');
    _enableRunningAsyncCallbacks();
    function connect() { _initNetworking(args.port, '127.0.0.1'); say('connected'); }
    function holdThenReset() { for (const [id, op] of [[1, 'hold'], [2, 'hold'], [3, 'reset']]) _send(id, req(id, op), () => say(op)); }
    function sendNow() { try { _send(4, req(4, 'echo'), (m) => say('echo ' + m.op)); say('sent'); } catch (e) { say('refused ' + e.message); } }
    function syncOverEnd() { try { _sendSync(5, req(5, 'end')); say('sync answered'); } catch (e) { say('sync ' + e.message); } }
    function spin() { keshConsole('spinning', 'Info'); for (;;) {} }`,
  'idle.js': '_enableRunningAsyncCallbacks(); _setTimer(true, () => {}, 5);',
});

test('connection faults are the Vuser\'s: waiting calls fail, it connects again; a stop ends a script that never yields', () => {
  // The service answers "echo", holds "hold", resets on "reset" and ends on "end".
  const r = scenario(`
    const server = require('node:net').createServer((socket) => {
      socket.on('error', () => {});
      require('node:readline').createInterface({ input: socket }).on('line', (text) => {
        const { messageId, op } = JSON.parse(text);
        if (op === 'echo') socket.write(JSON.stringify({ messageId, socketId: '', responseType: 0, op }) + '\\n');
        if (op === 'reset') socket.resetAndDestroy();
        if (op === 'end') socket.end();
      });
    });
    const lines = [];
    k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));
    server.listen(0, '127.0.0.1', async () => {
      k.createKeshThread(1, ${JSON.stringify(path.join(dir, 'faults.js'))}, JSON.stringify({ port: server.address().port }));
      await k.startKeshThread(1);
      for (const [call, wait] of [['connect', 'F connected'], ['holdThenReset', 'connection to Pelmare closed'],
        ['sendNow', 'F refused'], ['connect', 'F connected'], ['sendNow', 'F echo echo'],
        ['syncOverEnd', 'F sync'], ['connect', 'F connected'], ['sendNow', 'F echo'], ['spin', 'spinning']]) {
        const from = lines.length;
        k.runFunctionFromScript(1, call, '');
        await until(() => lines.slice(from).some((l) => l.includes(wait)), wait);
      }
      const t0 = Date.now();
      k.stopKeshThread(1);
      console.log('STOPPED after ' + (Date.now() - t0) + ' ms');
      await until(() => lines.some((l) => l.includes('terminated')), 'the termination warning');
      k.destroyKeshThreads();
      server.close();
      console.log('LINES' + JSON.stringify(lines));
    });`);
  assert.strictEqual(r.status, 0, r.stderr);
  const lines = JSON.parse(/LINES(.*)/.exec(r.stdout)[1]);
  assert.deepStrictEqual(lines.map((l) => / F (.*)$/.exec(l)?.[1]).filter(Boolean), [
    'connected',
    'refused _send: not connected to Pelmare (call _initNetworking first, or again after the connection closed)',
    'connected', 'sent', 'echo echo', 'sync connection to Pelmare closed: the service closed it', 'connected', 'sent', 'echo echo',
  ]);
  for (const line of [/^Error NetworkManager - .* connection to Pelmare closed: read failed: connection reset by peer$/,
    /^Warning NetworkManager - .* 3 waiting request callback\(s\) dropped: the connection closed$/,
    /^Warning VuserThread - \(\d+\) Vuser \[1\] the script did not come back to its loop within 2000 ms of the stop: its JavaScript was terminated/,
  ]) assert.ok(lines.some((l) => line.test(l)), `${line}\n${lines.join('\n')}`);
  const stopped = Number(/STOPPED after (\d+) ms/.exec(r.stdout)[1]);
  assert.ok(stopped >= 1900 && stopped < 10000, `stop took ${stopped} ms`);
});

const threadLimitSkip = process.getuid() !== 0 ? 'needs root to run a child under a thread limit'
  : /libtsan/.test(process.env.LD_PRELOAD || '') && 'ThreadSanitizer fails on its own under a thread limit';
test('a thread the system refuses fails that start alone, and leaves no Vuser behind', { skip: threadLimitSkip }, () => {
  // An unprivileged user under a task limit: the next thread fails. That user may not reach the
  // checkout or this node, so the add-on and node are copied (or linked) beside the script.
  const [addon, node] = [path.join(dir, 'ostrale-kesh.node'), path.join(dir, 'node')];
  fs.chmodSync(dir, 0o755);
  fs.copyFileSync(path.join(require('../lib/buildDir').buildDir(), 'ostrale-kesh.node'), addon);
  try { fs.linkSync(process.execPath, node); } catch { fs.copyFileSync(process.execPath, node); }
  const r = spawnSync('setpriv', ['--reuid=65534', '--regid=65534', '--clear-groups', 'bash', '-c', 'ulimit -u 7 && exec "$0" -e "$1"', node, `
    const k = require(${JSON.stringify(addon)});
    k.createKeshThread(1, ${JSON.stringify(path.join(dir, 'idle.js'))}, '{}');
    k.startKeshThread(1).then(() => console.log('R started'), (e) => console.log('R ' + e)).then(() => {
      try { k.stopKeshThread(1); } catch (e) { console.log('S ' + e.message); }
      k.destroyKeshThreads();
    });`], { encoding: 'utf8', timeout: 30000, cwd: dir });
  assert.strictEqual(r.status, 0, r.stderr);
  assert.match(r.stdout, /R Vuser \[1\] thread fail to start\n/);
  assert.match(r.stdout, /S no active thread for Vuser id 1\n/);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) Vuser \[1\] the thread could not be started: /);
});
