'use strict';
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scriptDir, driveVuser } = require('./helpers');

const dir = scriptDir({
  'timers.js': `
    const say = (...a) => console.log('T ' + a.map(String).join(' '));
    const attempt = (label, f) => { try { say(label, f()); } catch (e) { say(label, e.constructor.name, e.message); } };
    _enableRunningAsyncCallbacks();
    function oneShot() {
      const id = _setTimer(false, (arg) => say('fired', JSON.stringify(arg), arguments.length), 5, { kept: 1 });
      _waitForTimer(id).then((v) => say('settled', v, _waitForTimer(id), _waitForTimer(id) === undefined));
      say('same promise', _waitForTimer(id) === _waitForTimer(id));
    }
    function repeating() {
      let n = 0;
      const id = _setTimer(true, () => { n++; }, 2);
      globalThis.rep = { id, count: () => n };
      _waitForTimer(id).then(() => say('repeat settled after', n >= 3, globalThis.rep.count() === n));
    }
    function stopRepeating() {
      const before = rep.count();
      _clearTimer(rep.id);
      _setTimer(false, () => say('no call after clear', rep.count() === before), 20);
    }
    // Double clear, and clear after firing: both accepted, the second settle fails.
    function doubleClear() {
      _disableRunningAsyncCallbacks();
      const a = _setTimer(false, () => {}, 100000);
      attempt('clear a', () => _clearTimer(a));
      attempt('clear a again', () => _clearTimer(a));
      globalThis.fired = _setTimer(false, () => say('fired then cleared'), 0);
    }
    function clearFired() {
      attempt('clear fired', () => _clearTimer(fired));
      _enableRunningAsyncCallbacks();
    }
    function clearAll() {
      _disableRunningAsyncCallbacks();
      const q = _setTimer(false, () => say('queued callback still runs'), 100000);
      _clearTimer(q);
      _clearTimers();
      attempt('clear after clearTimers', () => _clearTimer(q));
      attempt('wait after clearTimers', () => _waitForTimer(q));
      _enableRunningAsyncCallbacks();
    }
    function badInput() {
      attempt('unknown', () => _clearTimer(99999));
      attempt('negative', () => _waitForTimer(-1));
      attempt('id text', () => _clearTimer('0'));
      attempt('no callback', () => _setTimer(false, 'x', 5));
      attempt('symbol timeout', () => _setTimer(false, () => {}, Symbol('t')));
      const id = _setTimer(false, () => say('text timeout fired'), 'abc');
      // Delays libuv cannot hold are refused, and take no id.
      attempt('infinite delay', () => _setTimer(false, () => say('infinite delay fired'), Infinity));
      attempt('minus infinity', () => _setTimer(false, () => say('minus infinity fired'), -Infinity));
      attempt('huge delay', () => _setTimer(true, () => say('huge delay fired'), 1e308));
      attempt('2^64 ms', () => _setTimer(false, () => say('2^64 fired'), 2 ** 64));
      _setTimer(false, () => say('2^63 ms fired'), 2 ** 63);
      const next = _setTimer(false, () => {}, 100000);
      say('ids count up', next === id + 2);
    }
    // Node's own timers would throw an unrelated error or crash the host; each names its stand-in.
    function nodeTimers() {
      for (const f of [setTimeout, setInterval, setImmediate]) attempt(f.name, () => f(() => say('node timer ran'), 1));
      _setTimer(false, () => say('Vuser goes on'), 1);
    }
    function firstId() { say('first id', _setTimer(false, () => {}, 100000)); }`,
});

test('timers: firing, settling, clearing, and every refusal', () => {
  const r = driveVuser(path.join(dir, 'timers.js'), [
    ['firstId'], ['oneShot'], ['repeating'], 60, ['stopRepeating'], 60,
    ['doubleClear'], 20, ['clearFired'], 40, ['clearAll'], 40, ['badInput'], 40, ['nodeTimers'], 40,
  ]);
  assert.strictEqual(r.status, 0, r.stderr);
  const said = r.stdout.split('\n').filter((l) => l.startsWith('T ')).map((l) => l.slice(2));
  assert.deepStrictEqual(said, [
    'first id 0',
    'same promise true',
    'fired {} 1',
    'settled undefined undefined true',
    'repeat settled after true true',
    'no call after clear true',
    'clear a undefined',
    'clear a again undefined',
    'clear fired undefined',
    'fired then cleared',
    'clear after clearTimers Error timer [6] is already stopped',
    'wait after clearTimers undefined',
    'unknown Error Cannot find timer [99999] to clear',
    'negative Error Cannot find timer [4294967295] to clear',
    'id text TypeError _clearTimer: the timer id must be a number',
    'no callback TypeError _setTimer: the callback must be a function',
    'symbol timeout TypeError Cannot convert a Symbol value to a number',
    'infinite delay RangeError _setTimer: the delay must be a finite number of milliseconds below 2^64, not Infinity',
    'minus infinity RangeError _setTimer: the delay must be a finite number of milliseconds below 2^64, not -Infinity',
    'huge delay RangeError _setTimer: the delay must be a finite number of milliseconds below 2^64, not 1e+308',
    '2^64 ms RangeError _setTimer: the delay must be a finite number of milliseconds below 2^64, not 18446744073709551616',
    'ids count up true',
    'text timeout fired',
    'setTimeout Error setTimeout is not available in a Vuser: use _setTimer(false, callback, ms), or sleep(ms) of lib/vuser.js',
    'setInterval Error setInterval is not available in a Vuser: use _setTimer(true, callback, ms)',
    'setImmediate Error setImmediate is not available in a Vuser: use _setTimer(false, callback, 0)',
    'Vuser goes on',
  ]);
  // Second settles of a doubly cleared, a fired-then-cleared and a closed timer fail in the queue.
  const failed = r.lines.filter((l) => /Exception during async callback: .*Cannot resolve timer promise due to error/.test(l));
  assert.strictEqual(failed.length, 3, r.lines.filter((l) => /^Error/.test(l)).join('\n'));
  assert.ok(!r.stdout.includes('queued callback still runs'));
});

// Calls `run` of a one-Vuser script in a child and returns what the script said with `say`,
// once it said the `last` word.
function saidBy(body, last) {
  const { scenario, scriptDir: dirOf } = require('./helpers');
  const script = path.join(dirOf({
    'script.js': `_enableRunningAsyncCallbacks();\nconst say = (t) => keshConsole('SAID ' + t, 'Info');\n${body}`,
  }), 'script.js');
  const r = scenario(`
    const said = [];
    k.onLogMessage((l) => { const m = /\\(\\d+\\) SAID (.*)$/.exec(l); if (m) said.push(m[1]); });
    k.createKeshThread(1, ${JSON.stringify(script)}, '{}');
    k.startKeshThread(1).then(() => {
      k.runFunctionFromScript(1, 'run', '');
      const poll = setInterval(() => {
        if (!said.some((l) => l.startsWith(${JSON.stringify(last)}))) return;
        clearInterval(poll);
        k.stopKeshThread(1);
        k.destroyKeshThreads();
        console.log('SAID' + JSON.stringify(said));
      }, 20);
    });`, { timeout: 60000 });
  assert.strictEqual(r.status, 0, r.stderr);
  return JSON.parse(/SAID(.*)/.exec(r.stdout)[1]);
}

test('settled timers are let go: a Vuser that sleeps a hundred thousand times does not grow', () => {
  const said = saidBy(`
    const sleep = () => _waitForTimer(_setTimer(false, () => {}, 0));
    async function run() {
      for (let i = 0; i < 5000; ++i) await sleep();
      // Outside the heaps: what a timer kept by native code would occupy.
      const outside = () => { const m = process.memoryUsage(); return m.rss - m.heapTotal; };
      const before = outside();
      for (let i = 0; i < 100000; ++i) await sleep();
      say('GROWTH ' + Math.round((outside() - before) / 1048576));
      const fired = _setTimer(false, () => {}, 0);
      await _waitForTimer(fired);
      try { _clearTimer(fired); } catch (e) { say('CLEAR ' + e.message); }
      say('WAIT ' + _waitForTimer(fired));
    }`, 'WAIT');
  const growth = Number(/GROWTH (-?\d+)/.exec(said[0])[1]);
  // The sanitizers keep freed memory in quarantine and shadow what is used: RSS says nothing there.
  if (!/libasan|libtsan/.test(process.env.LD_PRELOAD || '')) {
    assert.ok(growth < 8, `memory outside the heaps grew ${growth} MiB over 100,000 sleeps`);
  }
  assert.match(said[1], /^CLEAR timer \[\d+\] is already stopped$/);
  assert.strictEqual(said[2], 'WAIT undefined');
});

test('a timer set after a long synchronous stretch waits its whole delay from the moment it was set', () => {
  const said = saidBy(`
    const busy = (ms) => { for (const end = Date.now() + ms; Date.now() < end;); };
    const waited = (ms) => new Promise((resolve) => {
      busy(300);
      const setAt = process.hrtime.bigint();
      _setTimer(false, () => resolve(Number(process.hrtime.bigint() - setAt) / 1e6), ms);
    });
    async function run() {
      const out = [];
      for (const ms of [200, 20, 1]) out.push([ms, await waited(ms)]);
      say('WAITED ' + JSON.stringify(out));
    }`, 'WAITED');
  for (const [ms, waited] of JSON.parse(said[0].slice('WAITED '.length))) {
    assert.ok(waited >= ms, `a ${ms} ms timer fired after ${waited.toFixed(2)} ms`);
  }
});
