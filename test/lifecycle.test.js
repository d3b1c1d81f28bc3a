'use strict';
// A Vuser's life in a long-running runner: connection faults stay the Vuser's, a thread the
// system refuses fails only that start, nothing leaks across lifetimes, and no exit of the
// process, however it comes, ends in a signal.
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const { scenario, scriptDir, modulePath } = require('./helpers');

const addonFile = path.join(require('../lib/buildDir').buildDir(), 'ostrale-kesh.node');

const dir = scriptDir({
  'faults.js': `
    const req = (id, op) => JSON.stringify({ messageId: id, op }) + '\\n';
    const say = (t) => console.log('F ' + t);
    _enableRunningAsyncCallbacks();
    function connect() { _initNetworking(args.port, '127.0.0.1'); say('connected'); }
    function holdThenReset() {
      _send(1, req(1, 'hold'), () => say('held answer'));
      _send(2, req(2, 'hold'), () => say('held answer'));
      _send(3, req(3, 'reset'), () => say('reset answer'));
    }
    function sendNow() {
      try { _send(4, req(4, 'echo'), (m) => say('echo ' + m.op)); say('sent'); }
      catch (e) { say('refused ' + e.message); }
    }
    function syncOverEnd() {
      try { _sendSync(5, req(5, 'end')); say('sync answered'); }
      catch (e) { say('sync ' + e.message); }
    }`,
  'idle.js': `
    _enableRunningAsyncCallbacks();
    _setTimer(true, () => {}, 5);
    function work() {}
    function spin() { for (;;) {} }`,
});

// A service that answers "echo", holds "hold", resets the connection on "reset" and ends it on
// "end", so the faults come exactly where the script asks for them.
const SERVICE = `
  const net = require('node:net');
  const server = net.createServer((socket) => {
    let buffered = '';
    socket.on('error', () => {});
    socket.on('data', (chunk) => {
      buffered += chunk;
      let end;
      while ((end = buffered.indexOf('\\n')) >= 0) {
        const request = JSON.parse(buffered.slice(0, end));
        buffered = buffered.slice(end + 1);
        if (request.op === 'echo') socket.write(JSON.stringify({ messageId: request.messageId, socketId: '', responseType: 0, op: 'echo' }) + '\\n');
        if (request.op === 'reset') socket.resetAndDestroy();
        if (request.op === 'end') socket.end();
      }
    });
  });
`;

test('a reset and an end of the connection are the Vuser\'s: waiting calls fail, it connects again', () => {
  const r = scenario(`${SERVICE}
    const lines = [];
    k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));
    const seen = async (what) => { for (let i = 0; i < 400 && !lines.concat(out).some((l) => l.includes(what)); ++i) await sleep(10); };
    const out = [];
    const log = console.log;
    console.log = (t) => { out.push(String(t)); log(t); };
    server.listen(0, '127.0.0.1', async () => {
      k.createKeshThread(1, ${JSON.stringify(path.join(dir, 'faults.js'))}, JSON.stringify({ port: server.address().port }));
      await k.startKeshThread(1);
      for (const [call, wait] of [['connect', 'F connected'], ['holdThenReset', 'connection to Pelmare closed'],
        ['sendNow', 'F refused'], ['connect', 'F connected'], ['sendNow', 'F echo echo'],
        ['syncOverEnd', 'F sync'], ['connect', 'F connected'], ['sendNow', 'F echo']]) {
        out.length = 0;
        k.runFunctionFromScript(1, call, '');
        await seen(wait);
      }
      k.stopKeshThread(1);
      k.destroyKeshThreads();
      server.close();
      log('LINES' + JSON.stringify(lines));
    });`);
  assert.strictEqual(r.signal, null);
  assert.strictEqual(r.status, 0, r.stderr);
  const said = r.stdout.split('\n').filter((l) => l.startsWith('F '));
  assert.deepStrictEqual(said, [
    'F connected',
    'F refused _send: not connected to Pelmare (call _initNetworking first, or again after the connection closed)',
    'F connected', 'F sent', 'F echo echo',
    'F sync connection to Pelmare closed: the service closed it',
    'F connected', 'F sent', 'F echo echo',
  ]);
  const lines = JSON.parse(/LINES(.*)/.exec(r.stdout)[1]);
  assert.ok(lines.some((l) => /^Error NetworkManager - .* connection to Pelmare closed: read failed: connection reset by peer$/.test(l)), lines.join('\n'));
  assert.ok(lines.some((l) => /^Warning NetworkManager - .* 3 waiting request callback\(s\) dropped: the connection closed$/.test(l)));
});

const threadLimitSkip = process.getuid() !== 0 ? 'needs root to run a child under a thread limit'
  : /libtsan/.test(process.env.LD_PRELOAD || '') && 'ThreadSanitizer fails on its own under a thread limit';
test('a thread the system refuses fails that start alone, and leaves no Vuser behind', { skip: threadLimitSkip }, () => {
  // As an unprivileged user with a task limit at what node already runs, the next thread fails.
  // The checkout may lie where that user cannot read (a private temporary folder): the child
  // loads a copy of the add-on beside the script.
  const addonCopy = path.join(dir, 'ostrale-kesh.node');
  const code = `
    const k = require(${JSON.stringify(addonCopy)});
    const lines = [];
    k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));
    k.createKeshThread(1, ${JSON.stringify(path.join(dir, 'idle.js'))}, '{}');
    k.startKeshThread(1).then(() => console.log('R started'), (e) => console.log('R ' + e)).then(() => {
      try { k.stopKeshThread(1); } catch (e) { console.log('S ' + e.message); }
      k.destroyKeshThreads();
      console.log('LINES' + JSON.stringify(lines));
    });`;
  const fs = require('node:fs');
  fs.chmodSync(dir, 0o755);
  fs.copyFileSync(addonFile, addonCopy);
  // The unprivileged user may not reach this node where it lies (a Node.js line kept under /root):
  // it runs the same file through a link, or a copy, beside the script.
  const node = path.join(dir, 'node');
  if (!fs.existsSync(node)) {
    try { fs.linkSync(process.execPath, node); } catch { fs.copyFileSync(process.execPath, node); }
  }
  const threads = 7;
  const r = spawnSync('setpriv', ['--reuid=65534', '--regid=65534', '--clear-groups', 'bash', '-c',
    `ulimit -u ${threads} && exec "$0" -e "$1"`, node, code], { encoding: 'utf8', timeout: 30000, cwd: dir });
  assert.strictEqual(r.signal, null);
  assert.strictEqual(r.status, 0, r.stderr);
  assert.match(r.stdout, /R Vuser \[1\] thread fail to start\n/);
  assert.match(r.stdout, /S no active thread for Vuser id 1\n/);
  assert.match(r.stdout, /Error KeshFactory - \(\d+\) Vuser \[1\] the thread could not be started: /);
});

test('lifetimes leak no descriptors; a busy script is terminated by its stop; a new logger attaches at once', () => {
  const r = scenario(`
    const fs = require('node:fs');
    const fds = () => fs.readdirSync('/proc/self/fd').length;
    const counts = [];
    (async () => {
      for (let cycle = 0; cycle < 8; ++cycle) {
        const lines = [];
        k.onLogMessage((l) => lines.push(l));   // a new logger every cycle, right after the last
        const ids = [1, 2, 3, 4, 5];
        for (const id of ids) k.createKeshThread(id, ${JSON.stringify(path.join(dir, 'idle.js'))}, '{}');
        await Promise.all(ids.map((id) => k.startKeshThread(id)));
        for (const id of ids) k.runFunctionFromScript(id, 'work', '');
        await sleep(20);
        for (const id of ids) k.stopKeshThread(id);
        k.destroyKeshThreads();
        counts.push(fds());
      }
      k.onLogMessage((l, lv) => { if (/terminated/.test(l)) console.log('T ' + lv + ' ' + l); });
      k.createKeshThread(9, ${JSON.stringify(path.join(dir, 'idle.js'))}, '{}');
      await k.startKeshThread(9);
      k.runFunctionFromScript(9, 'spin', '');
      await sleep(100);
      const t0 = Date.now();
      k.stopKeshThread(9);
      console.log('STOPPED after ' + (Date.now() - t0) + ' ms');
      k.destroyKeshThreads();
      console.log('FDS' + JSON.stringify(counts));
    })();`);
  assert.strictEqual(r.signal, null);
  assert.strictEqual(r.status, 0, r.stderr);
  const counts = JSON.parse(/FDS(.*)/.exec(r.stdout)[1]);
  assert.deepStrictEqual(counts.slice(1), new Array(counts.length - 1).fill(counts[0]), `descriptors per cycle: ${counts}`);
  const stopped = Number(/STOPPED after (\d+) ms/.exec(r.stdout)[1]);
  assert.ok(stopped >= 1900 && stopped < 10000, `stop took ${stopped} ms`);
  assert.match(r.stdout, /T Warning VuserThread - \(\d+\) Vuser \[9\] the script did not come back to its loop within 2000 ms of the stop: its JavaScript was terminated/);
});

test('a process that ends with Vusers running exits with its own code, the raw add-on as lib/index.js', () => {
  const starts = `
    for (const id of [1, 2, 3]) k.createKeshThread(id, ${JSON.stringify(path.join(dir, 'idle.js'))}, '{}');
    const started = Promise.all([1, 2, 3].map((id) => k.startKeshThread(id)));`;
  for (const load of [`require(${JSON.stringify(addonFile)})`, `require(${JSON.stringify(modulePath)})`]) {
    for (const [ending, status] of [['started.then(() => process.exit(3));', 3],
      ['started.then(() => {});', 0],
      ['started.then(() => { throw new Error("runner failed"); });', 1]]) {
      const r = spawnSync(process.execPath, ['-e', `const k = ${load};\n${starts}\n${ending}`],
        { encoding: 'utf8', timeout: 30000 });
      assert.strictEqual(r.signal, null, `${load} ${ending}: ${r.stderr}`);
      assert.strictEqual(r.status, status, `${load} ${ending}: ${r.stderr}`);
    }
  }
});
