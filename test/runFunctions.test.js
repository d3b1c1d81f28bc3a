'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { spawn } = require('node:child_process');
const path = require('node:path');
const { scenario, scriptDir, driveVuser, childPrelude } = require('./helpers');

const dir = scriptDir({
  'calls.js': `
    function show(p) { console.log('SHOW ' + typeof p + ' ' + JSON.stringify(p)); }
    var notfn = 5;
    // Rejects once a timer has fired: long after the call returned.
    async function late() { _enableRunningAsyncCallbacks(); await _waitForTimer(_setTimer(false, () => {}, 5)); throw new Error('later'); }
    function rejectNow() { return Promise.reject(new Error('now')); }
    const seen = [];
    const note = (what) => () => seen.push(what);
    function fill() { ['a', 'b', 'c'].forEach((w) => _setTimer(false, note(w), 0)); }
    function drain() { console.log('BEFORE ' + seen.join('')); _runPendingAsyncCallbacks(); console.log('AFTER ' + seen.join('')); }
    // A queued call that queues another: the new one runs in the same drain.
    function chain() { globalThis.other = _setTimer(false, () => {}, 100000); _setTimer(false, () => { _clearTimer(other); }, 0); }
    function drainChain() { _runPendingAsyncCallbacks(); console.log('CHAINED ' + _waitForTimer(other)); }
    function throwing() { _setTimer(false, () => { throw new Error('cb'); }, 0); _setTimer(false, note('after-throw'), 0); }
    function report() { console.log('SEEN ' + seen.join(',')); }`,
  'stress.js': `
    let runs = 0, torn = 0, last = -1;
    const report = () => keshConsole('STRESS ' + JSON.stringify({ runs, torn, last }), 'Info');
    const check = (name) => (p) => { runs++; if (p.name !== name) torn++; last = p.n; if (last === 9999) report(); };
    Object.assign(globalThis, { a: check('a'), b: check('b'), report });`,
  'garbage.js': `
    let junk = [];
    for (let i = 0; i < 300000; ++i) junk.push({ i, s: 'x' + i });
    function busy() {}
    function drop() { junk = null; }`,
});
const script = (name) => JSON.stringify(path.join(dir, name));

test('run functions: queued calls in order, the stopped hook, chains, throwing calls; parameters, no function, rejections', () => {
  const [enable, disable] = [['_enableRunningAsyncCallbacks'], ['_disableRunningAsyncCallbacks']];
  const r = driveVuser(path.join(dir, 'calls.js'), [
    ['fill'], ['drain'], ['fill'], ['report'], enable, ['report'], disable, ['chain'], ['drainChain'],
    ['fill'], ['_clearPendingRunFunctions'], enable, ['report'], ['throwing'], ['report'],
    ['show', '5'], ['show', '{"a":1}'], ['show', 'abc'], ['show'], ['notfn', 'x'], ['show', '"after notfn"'],
    ['late', 'x'], 50, ['show', '"after late"'], ['rejectNow', 'x'], ['show', '"after reject"'],
  ]);
  assert.strictEqual(r.status, 0, r.stderr);
  // Nothing runs while the hook is stopped, nothing is lost, and the order is kept.
  assert.match(r.stdout, /BEFORE \nAFTER abc\n/);
  assert.deepStrictEqual(r.stdout.split('\n').filter((l) => l.startsWith('SEEN ')),
    ['SEEN a,b,c', 'SEEN a,b,c,a,b,c', 'SEEN a,b,c,a,b,c', 'SEEN a,b,c,a,b,c,after-throw']);
  assert.match(r.stdout, /CHAINED undefined\n/);
  assert.deepStrictEqual(r.stdout.split('\n').filter((l) => l.startsWith('SHOW ')), ['SHOW number 5',
    'SHOW object {"a":1}', 'SHOW string "abc"', 'SHOW string "undefined"', 'SHOW string "after notfn"', 'SHOW string "after late"']);
  const errors = r.lines.filter((l) => l.startsWith('Error VuserThread'));
  assert.strictEqual(errors.length, 4, errors.join('\n'));
  // The last: the rejected promise stopped the Vuser, so the runner's stop finds it stopping.
  [/^Error VuserThread - \(\d+\) Exception during async callback: \{.*Uncaught Error: cb/, /Error calling Vuser function: \{.*notfn is not a function/,
    /Vuser \[1\] Error calling Vuser function \(promise rejected\): Uncaught Error: now$/,
    /Vuser \[1\] blocked another closing request$/].forEach((line, i) => assert.match(errors[i], line));
  assert.ok(r.lines.some((l) => /^Warning .*unhandled promise rejection: Uncaught Error: later$/.test(l)));
});

test('requests: refused before the start, run at once after it; 10,000 in a tight loop, none torn; kept after the stop, refused when gone', () => {
  const r = scenario(`
    const reports = [];
    const t = (f) => { try { console.log('ok ' + f()); } catch (e) { console.log('ERR ' + e.message); } };
    k.onLogMessage((l) => { const m = / STRESS (.*)$/.exec(l); if (m) reports.push(JSON.parse(m[1])); });
    k.createKeshThread(1, ${script('stress.js')}, '{}');
    t(() => k.runFunctionFromScript(1, 'report'));
    const started = k.startKeshThread(1);
    t(() => k.runFunctionFromScript(1, 'report'));
    started.then(async () => {
      await until(() => reports.length === 1, 'the report asked for at once');
      for (let n = 0; n < 10000; ++n) {
        const name = n % 2 ? 'b' : 'a';
        k.runFunctionFromScript(1, name, JSON.stringify({ name, n }));
      }
      // The last request reports when it runs; a report asked for after it shows whether any ran later.
      await until(() => reports.length === 2, 'the last request', 20000);
      k.runFunctionFromScript(1, 'report');
      await until(() => reports.length === 3, 'the report');
      k.stopKeshThread(1);
      t(() => k.runFunctionFromScript(1, 'report'));
      k.destroyKeshThreads();
      t(() => k.runFunctionFromScript(1, 'report'));
      console.log('REPORTS' + JSON.stringify(reports));
    });`, { timeout: 60000 });
  assert.strictEqual(r.status, 0, r.stderr);
  assert.deepStrictEqual(r.stdout.split('\n').filter((l) => /^(ok|ERR)/.test(l)), [
    'ERR Vuser [1] was never started', 'ok undefined', 'ok undefined', 'ERR no active thread for Vuser id 1']);
  const [early, , stats] = JSON.parse(/REPORTS(.*)\n/.exec(r.stdout)[1]);
  assert.deepStrictEqual(early, { runs: 0, torn: 0, last: -1 });
  assert.deepStrictEqual([stats.torn, stats.last], [0, 9999]);
  assert.ok(stats.runs >= 1 && stats.runs <= 10000, String(stats.runs));
});

test('memory: no collection forced while a Vuser is busy; its garbage goes once it is idle', async () => {
  // V8's own trace names each full collection and, for ours, its reason.
  const child = spawn(process.execPath, ['--trace-gc', '-e', `${childPrelude}
    k.onLogMessage(() => {});
    k.createKeshThread(1, ${script('garbage.js')}, '{}');
    k.startKeshThread(1).then(async () => {
      console.log('PHASE busy');
      for (let i = 0; i < 40; ++i) { k.runFunctionFromScript(1, 'busy', ''); await sleep(25); }
      console.log('PHASE idle');
      k.runFunctionFromScript(1, 'drop', '');
      process.stdin.once('data', () => { k.stopKeshThread(1); k.destroyKeshThreads(); process.exit(0); });
    });`], { stdio: ['pipe', 'pipe', 'inherit'] });
  let out = '';
  child.stdout.on('data', (d) => { out += d; });
  const collected = () => /PHASE idle[\s\S]*low memory notification/.test(out);
  for (const end = Date.now() + 10000; !collected() && Date.now() < end;) await new Promise((r) => setTimeout(r, 20));
  const done = collected();
  child.stdin.end('stop\n');
  await new Promise((r) => child.once('exit', r));
  assert.ok(done, `no collection after the Vuser went idle:\n${out}`);
  const busy = out.slice(out.indexOf('PHASE busy'), out.indexOf('PHASE idle'));
  assert.doesNotMatch(busy, /Mark-Compact/, 'a full collection while the Vuser was busy');
});
