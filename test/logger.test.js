'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { scenario } = require('./helpers');

test('lines: standard output, then the callback, then standard output again; the process exits', () => {
  const r = scenario(`
    k.setLogLevel('debug');
    try { k.stopKeshThread(5); } catch {}
    const got = [];
    k.onLogMessage(function (line, level) { got.push([line, level, this === globalThis]); });
    try { k.stopKeshThread(7); } catch {}
    setImmediate(() => {
      k.destroyKeshThreads();
      console.log('GOT' + JSON.stringify(got));
      try { k.stopKeshThread(9); } catch {}
    });`);
  assert.strictEqual(r.status, 0);
  assert.match(r.stdout, /^\[Info\]: KeshLogger - \(\d+\) called to set Log level with the following state: debug\n\[Error\]: KeshFactory - \(\d+\) Vuser \[5\] didn't find active thread\n/);
  const got = JSON.parse(/GOT(.*)\n/.exec(r.stdout)[1]).map(([line, ...rest]) => [line.replace(/\(\d+\)/, '(tid)'), ...rest]);
  // close() delivers the last line before it switches back.
  assert.deepStrictEqual(got, [["KeshFactory - (tid) Vuser [7] didn't find active thread", 'Error', true],
    ['KeshFactory - (tid) finalizing destruction of Vuser(s) thread(s)', 'Debug', true]]);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) Vuser \[9\] didn't find active thread/);
});

test('setLogLevel: messages, case-sensitive names, no trace, and the filter', () => {
  // At level error, the info line of setLogLevel('debug') is filtered.
  const r = scenario(`for (const a of [[], [5], ['trace'], ['INFO'], ['error'], ['debug'], ['warning', 'x']]) k.setLogLevel(...a);`);
  assert.strictEqual(r.status, 0);
  const set = (level) => `[Info]: KeshLogger - called to set Log level with the following state: ${level}`;
  const invalid = (level) => `[Error]: KeshLogger - WARNING: Receive invalid log level parameter ${level}. Use default info log level.`;
  const [noLevel, badArg] = ['please pass the requested log level', 'bad argument passed for setLogLevel'].map((t) => `[Error]: KeshLogger - ${t}`);
  assert.deepStrictEqual(r.stdout.trim().split('\n').map((l) => l.replace(/\(\d+\) /, '')), [
    noLevel, badArg, badArg, set('trace'), invalid('trace'), set('INFO'), invalid('INFO'), set('error'), noLevel, set('warning'),
  ]);
});

test('onLogMessage: bad callbacks and a second one are refused; a throwing callback loses only its line', () => {
  const r = scenario(`
    const errs = [];
    const tryIt = (...a) => { try { k.onLogMessage(...a); } catch (e) { errs.push(e.constructor.name + ': ' + e.message); } };
    const got = [];
    let first = true;
    const callback = (l) => { if (first) { first = false; throw new Error('cb failed'); } got.push(l); };
    for (const a of [[], [1], [() => {}, () => {}], [callback]]) tryIt(...a);
    try { k.stopKeshThread(1); } catch {}
    try { k.stopKeshThread(2); } catch {}
    until(() => got.length >= 2, 'the error line and the second line').then(() => {
      tryIt(() => {});
      try { k.stopKeshThread(4); } catch {}
      setImmediate(() => { console.log('ERRS' + JSON.stringify(errs) + '\\nGOT' + JSON.stringify(got)); k.destroyKeshThreads(); });
    });`);
  assert.strictEqual(r.status, 0, r.stderr);
  const bad = 'TypeError: Please provide function callback';
  assert.deepStrictEqual(JSON.parse(/ERRS(.*)\n/.exec(r.stdout)[1]), [bad, bad, bad, "TypeError: You've already initialized the logger"]);
  const got = JSON.parse(/GOT(.*)\n/.exec(r.stdout)[1]);
  assert.deepStrictEqual(got.map((l) => l.replace(/ \{.*/s, '').replace(/\(\d+\)/, '(tid)')).sort(),
    ["KeshFactory - (tid) Vuser [2] didn't find active thread", 'KeshLogger - (tid) Error calling logger callback']);
  assert.match(got.find((l) => l.startsWith('KeshLogger')), /"message":"Uncaught Error: cb failed".*\}\n$/s);
  // After the second call, output is direct although the first callback stays registered.
  assert.match(r.stdout, /\[Error\]: KeshLogger - \(\d+\) You've already initialized the logger/);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) Vuser \[4\] didn't find active thread/);
});
