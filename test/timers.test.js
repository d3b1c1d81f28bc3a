'use strict';
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir, driveVuser } = require('./helpers');

const dir = scriptDir({
  'timers.js': `
    const say = (...a) => console.log('T ' + a.map(String).join(' '));
    const attempt = (label, f) => { try { say(label, f()); } catch (e) { say(label, e.constructor.name, e.message); } };
    _enableRunningAsyncCallbacks();
    function oneShot() {
      const id = _setTimer(false, (arg) => say('fired', JSON.stringify(arg), arguments.length), 5, { kept: 1 });
      _waitForTimer(id).then((v) => say('settled', v, _waitForTimer(id)));
    }
    function repeating() {
      let n = 0;
      globalThis.rep = { id: _setTimer(true, () => { n++; }, 2), count: () => n };
      _waitForTimer(rep.id).then(() => say('repeat settled after', n >= 3, rep.count() === n));
    }
    function stopRepeating() { const before = rep.count(); _clearTimer(rep.id); _setTimer(false, () => say('no call after clear', rep.count() === before), 20); }
    // Double clear, and clear after firing: both accepted, the second settle fails.
    function doubleClear() {
      _disableRunningAsyncCallbacks();
      const a = _setTimer(false, () => {}, 100000);
      for (const label of ['clear a', 'clear a again']) attempt(label, () => _clearTimer(a));
      globalThis.fired = _setTimer(false, () => say('fired then cleared'), 0);
    }
    function clearFired() { attempt('clear fired', () => _clearTimer(fired)); _enableRunningAsyncCallbacks(); }
    function clearAll() {
      _disableRunningAsyncCallbacks();
      const q = _setTimer(false, () => say('queued callback still runs'), 100000);
      _clearTimer(q); _clearTimers();
      attempt('clear after clearTimers', () => _clearTimer(q)); attempt('wait after clearTimers', () => _waitForTimer(q));
      _enableRunningAsyncCallbacks();
    }
    function badInput() {
      for (const [label, f] of [['unknown', () => _clearTimer(99999)], ['negative', () => _waitForTimer(-1)],
        ['id text', () => _clearTimer('0')], ['no callback', () => _setTimer(false, 'x', 5)]]) attempt(label, f);
      const id = _setTimer(false, () => say('text timeout fired'), 'abc');
      // Delays libuv cannot hold are refused, and take no id.
      for (const ms of [Infinity, 2 ** 64]) attempt(ms, () => _setTimer(false, () => say(ms + ' fired'), ms));
      _setTimer(false, () => say('2^63 ms fired'), 2 ** 63);
      say('ids count up', _setTimer(false, () => {}, 100000) === id + 2);
    }
    function nodeTimers() {
      for (const f of [setTimeout, setInterval, setImmediate]) attempt(f.name, () => f(() => say('node timer ran'), 1));
      _setTimer(false, () => say('Vuser goes on'), 1);
    }`,
  'waits.js': `_enableRunningAsyncCallbacks();
    const say = (t) => keshConsole('SAID ' + t, 'Info');
    const nap = () => _waitForTimer(_setTimer(false, () => {}, 0));
    // Outside the heaps: what a timer kept by native code would occupy.
    const outside = () => { const m = process.memoryUsage(); return m.rss - m.heapTotal; };
    async function run() {
      const out = [];
      for (const ms of [200, 20, 1]) {
        for (const end = Date.now() + 300; Date.now() < end;);
        const setAt = process.hrtime.bigint();
        out.push([ms, await new Promise((resolve) => _setTimer(false, () => resolve(Number(process.hrtime.bigint() - setAt) / 1e6), ms))]);
      }
      say('WAITED ' + JSON.stringify(out));
      for (let i = 0; i < 5000; ++i) await nap();
      const before = outside();
      for (let i = 0; i < 100000; ++i) await nap();
      say('GROWTH ' + Math.round((outside() - before) / 1048576));
      const fired = _setTimer(false, () => {}, 0);
      await _waitForTimer(fired);
      try { _clearTimer(fired); } catch (e) { say('CLEAR ' + e.message); }
    }`,
});

test('timers: firing, settling, clearing, and every refusal', () => {
  const r = driveVuser(path.join(dir, 'timers.js'), [
    ['oneShot'], ['repeating'], 60, ['stopRepeating'], 60,
    ['doubleClear'], 20, ['clearFired'], 40, ['clearAll'], 40, ['badInput'], 40, ['nodeTimers'], 40,
  ]);
  assert.strictEqual(r.status, 0, r.stderr);
  const delay = (v) => `RangeError _setTimer: the delay must be a finite number of milliseconds below 2^64, not ${v}`;
  assert.deepStrictEqual(r.stdout.split('\n').filter((l) => l.startsWith('T ')).map((l) => l.slice(2)), [
    'fired {} 1', 'settled undefined undefined', 'repeat settled after true true', 'no call after clear true',
    'clear a undefined', 'clear a again undefined', 'clear fired undefined', 'fired then cleared',
    'clear after clearTimers Error timer [5] is already stopped', 'wait after clearTimers undefined',
    'unknown Error Cannot find timer [99999] to clear', 'negative Error Cannot find timer [4294967295] to clear',
    'id text TypeError _clearTimer: the timer id must be a number', 'no callback TypeError _setTimer: the callback must be a function',
    `Infinity ${delay('Infinity')}`, `18446744073709552000 ${delay('18446744073709551616')}`,
    'ids count up true', 'text timeout fired',
    'setTimeout Error setTimeout is not available in a Vuser: use _setTimer(false, callback, ms), or sleep(ms) of lib/vuser.js',
    'setInterval Error setInterval is not available in a Vuser: use _setTimer(true, callback, ms)',
    'setImmediate Error setImmediate is not available in a Vuser: use _setTimer(false, callback, 0)',
    'Vuser goes on',
  ]);
  // Second settles of a doubly cleared, a fired-then-cleared and a closed timer fail in the queue.
  const failed = r.lines.filter((l) => /Exception during async callback: .*Cannot resolve timer promise due to error/.test(l));
  assert.strictEqual(failed.length, 3, r.lines.filter((l) => /^Error/.test(l)).join('\n'));
});

test('timers wait their whole delay after a long synchronous stretch; settled timers are let go', () => {
  const r = scenario(`
    const said = [];
    k.onLogMessage((l) => { const m = /\\(\\d+\\) SAID (.*)$/.exec(l); if (m) said.push(m[1]); });
    k.createKeshThread(1, ${JSON.stringify(path.join(dir, 'waits.js'))}, '{}');
    k.startKeshThread(1).then(async () => {
      k.runFunctionFromScript(1, 'run', '');
      await until(() => said.some((l) => l.startsWith('CLEAR')), 'the script to finish', 50000);
      k.stopKeshThread(1);
      k.destroyKeshThreads();
      console.log('SAID' + JSON.stringify(said));
    });`, { timeout: 60000 });
  assert.strictEqual(r.status, 0, r.stderr);
  const [waited, growth, clear] = JSON.parse(/SAID(.*)/.exec(r.stdout)[1]);
  for (const [ms, took] of JSON.parse(waited.slice('WAITED '.length))) assert.ok(took >= ms, `a ${ms} ms timer fired after ${took.toFixed(2)} ms`);
  // The sanitizers keep freed memory in quarantine and shadow what is used: RSS says nothing there.
  const grew = Number(/GROWTH (-?\d+)/.exec(growth)[1]);
  if (!/libasan|libtsan/.test(process.env.LD_PRELOAD || '')) assert.ok(grew < 8, `memory outside the heaps grew ${grew} MiB over 100,000 sleeps`);
  assert.match(clear, /^CLEAR timer \[\d+\] is already stopped$/);
});
