'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { scenario } = require('./helpers');

const tid = String.raw`\(\d+\)`;

test('lines: standard output, then the callback, then standard output again; the process exits', () => {
  const r = scenario(`
    k.setLogLevel('debug');
    try { k.stopKeshThread(5); } catch {}
    const got = [];
    k.onLogMessage(function (line, level) { got.push([typeof line, line, level, this === globalThis]); });
    try { k.stopKeshThread(7); } catch {}
    setImmediate(() => {
      k.destroyKeshThreads();
      console.log('GOT' + JSON.stringify(got));
      try { k.stopKeshThread(9); } catch {}
    });`);
  assert.strictEqual(r.status, 0);
  assert.match(r.stdout, new RegExp(`^\\[Info\\]: KeshLogger - ${tid} called to set Log level with the following state: debug\\n\\[Error\\]: KeshFactory - ${tid} Vuser \\[5\\] didn't find active thread\\n`));
  const got = JSON.parse(/GOT(.*)\n/.exec(r.stdout)[1]);
  assert.deepStrictEqual(got[0].slice(0, 1).concat(got[0].slice(2)), ['string', 'Error', true]);
  assert.match(got[0][1], new RegExp(`^KeshFactory - ${tid} Vuser \\[7\\] didn't find active thread$`));
  // close() delivers the last line before it switches back.
  assert.match(got[1][1], /^KeshFactory - \(\d+\) finalizing destruction of Vuser\(s\) thread\(s\)$/);
  assert.strictEqual(got[1][2], 'Debug');
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) Vuser \[9\] didn't find active thread/);
  assert.match(r.stdout, /\[Debug\]: KeshLogger - \(\d+\) Closed kesh logger async handle/);
});

test('onLogMessage refuses bad callbacks and a second one, and falls back to standard output', () => {
  const r = scenario(`
    const errs = [];
    const tryIt = (...a) => { try { k.onLogMessage(...a); } catch (e) { errs.push(e.constructor.name + ': ' + e.message); } };
    tryIt(); tryIt(1); tryIt(() => {}, () => {});
    const got = [];
    tryIt((l) => got.push(l));
    tryIt(() => {});
    try { k.stopKeshThread(4); } catch {}
    setImmediate(() => { console.log('ERRS' + JSON.stringify(errs) + ' GOT' + got.length); k.destroyKeshThreads(); });`);
  assert.strictEqual(r.status, 0);
  const bad = 'TypeError: Please provide function callback';
  assert.match(r.stdout, new RegExp(`ERRS${JSON.stringify([bad, bad, bad, "TypeError: You've already initialized the logger"]).replace(/[[\]]/g, '\\$&')} GOT0`));
  // After the second call, output is direct although the first callback stays registered.
  assert.match(r.stdout, /\[Error\]: KeshLogger - \(\d+\) You've already initialized the logger/);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) Vuser \[4\] didn't find active thread/);
});

test('setLogLevel: messages, case-sensitive names, no trace, and the filter', () => {
  const r = scenario(`
    k.setLogLevel();
    k.setLogLevel(5);
    k.setLogLevel('trace');
    k.setLogLevel('INFO');
    k.setLogLevel('error');
    k.setLogLevel('debug');     // its own info line is filtered at level error
    k.setLogLevel('warning', 'x');`);
  assert.strictEqual(r.status, 0);
  const lines = r.stdout.trim().split('\n').map((l) => l.replace(/\(\d+\) /, ''));
  assert.deepStrictEqual(lines, [
    '[Error]: KeshLogger - please pass the requested log level',
    '[Error]: KeshLogger - bad argument passed for setLogLevel',
    '[Error]: KeshLogger - bad argument passed for setLogLevel',
    '[Info]: KeshLogger - called to set Log level with the following state: trace',
    '[Error]: KeshLogger - WARNING: Receive invalid log level parameter trace. Use default info log level.',
    '[Info]: KeshLogger - called to set Log level with the following state: INFO',
    '[Error]: KeshLogger - WARNING: Receive invalid log level parameter INFO. Use default info log level.',
    '[Info]: KeshLogger - called to set Log level with the following state: error',
    '[Error]: KeshLogger - please pass the requested log level',
    '[Info]: KeshLogger - called to set Log level with the following state: warning',
  ]);
});

test('a callback that throws loses its line; the error line and later lines still arrive', () => {
  const r = scenario(`
    const got = [];
    let first = true;
    k.onLogMessage((line) => { if (first) { first = false; throw new Error('cb failed'); } got.push(line); });
    try { k.stopKeshThread(1); } catch {}
    try { k.stopKeshThread(2); } catch {}
    setTimeout(() => { k.destroyKeshThreads(); console.log('GOT' + JSON.stringify(got)); }, 50);`);
  assert.strictEqual(r.status, 0);
  const got = JSON.parse(/GOT(.*)\n/.exec(r.stdout)[1]);
  assert.ok(!got.some((l) => l.includes('Vuser [1]')));
  assert.ok(got.some((l) => l.includes('Vuser [2] didn\'t find active thread')));
  const error = got.find((l) => l.startsWith('KeshLogger - '));
  assert.match(error, /Error calling logger callback \{.*"message":"Uncaught Error: cb failed".*\}\n$/s);
});
