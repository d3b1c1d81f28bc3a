'use strict';
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir } = require('./helpers');

test('the eight exports stand under their names', () => {
  const r = scenario(`console.log(JSON.stringify(Object.entries(k).map(([n, f]) => [n, f.name, typeof f])));`);
  const names = ['setLogLevel', 'onLogMessage', 'createKeshThread', 'startKeshThread',
    'initKeshInspector', 'destroyKeshThreads', 'runFunctionFromScript', 'stopKeshThread'];
  assert.deepStrictEqual(JSON.parse(r.stdout), names.map((n) => [n, n, 'function']));
});

test('id checks of every command, with their texts and the 32-bit cut', () => {
  const r = scenario(`
    const out = [];
    const call = (name, ...a) => { try { k[name](...a); out.push('ok'); }
      catch (e) { out.push((e instanceof TypeError ? 'TypeError ' : e.constructor.name + ' ') + e.message); } };
    for (const name of ['createKeshThread', 'startKeshThread', 'stopKeshThread', 'runFunctionFromScript']) {
      call(name, Symbol('id'));
      call(name, { valueOf() { throw new Error('x'); } });
    }
    for (const name of ['startKeshThread', 'stopKeshThread', 'runFunctionFromScript']) {
      call(name);
      call(name, 2 ** 32 + 1);
      call(name, -1);
      call(name, 4294967295);
      call(name, '12');
    }
    call('initKeshInspector', '127.0.0.1', 9229);
    console.log('RESULT' + JSON.stringify(out));`);
  const out = JSON.parse(r.stdout.split('RESULT')[1]);
  const invalid = 'Error missing/invalid Vuser id';
  const none = (id) => `Error no active thread for Vuser id ${id}`;
  assert.deepStrictEqual(out, [
    invalid, invalid, invalid, invalid, invalid, invalid, invalid, invalid,
    none(0), none(1), none(-1), none(-1), none(12),
    none(0), none(1), none(-1), none(-1), none(12),
    none(0), none(1), none(-1), none(-1), none(12),
    'Error Zarnik inspector available only for single Vuser',
  ]);
  // The miss is logged for the Vuser; runFunctionFromScript logs its message before throwing.
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) Vuser \[12\] didn't find active thread\n/);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) no active thread for Vuser id 12\n/);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) missing\/invalid Vuser id\n/);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) Zarnik inspector available only for single Vuser\n/);
  assert.strictEqual(r.status, 0);
});

test('destroyKeshThreads may be called again, and the commands still answer after it', () => {
  const r = scenario(`
    k.destroyKeshThreads(); k.destroyKeshThreads();
    try { k.stopKeshThread(3); } catch (e) { console.log('ERR ' + e.message); }`);
  assert.match(r.stdout, /ERR no active thread for Vuser id 3/);
  assert.strictEqual(r.status, 0);
});

test('initKeshInspector refuses a port that is not an integer from 0 to 65535', () => {
  const dir = scriptDir({ 'idle.js': '' });
  const r = scenario(`
    const out = [];
    k.createKeshThread(1, ${JSON.stringify(path.join(dir, 'idle.js'))}, '{}');
    for (const port of [70000, 65536, -1, NaN, 0.5, 1e300, Infinity, '9229', undefined, 0, 65535]) {
      try { k.initKeshInspector('127.0.0.1', port); out.push('ok'); }
      catch (e) { out.push(e.constructor.name + ' ' + e.message); }
    }
    k.destroyKeshThreads();
    console.log('RESULT' + JSON.stringify(out));`);
  const out = JSON.parse(r.stdout.split('RESULT')[1]);
  const refused = 'RangeError initKeshInspector: the port must be an integer from 0 to 65535';
  assert.deepStrictEqual(out, [
    `${refused}, not 70000`, `${refused}, not 65536`, `${refused}, not -1`, `${refused}, not NaN`,
    `${refused}, not 0.5`, `${refused}, not 1e+300`, `${refused}, not Infinity`, refused, refused,
    'ok', 'ok',
  ]);
  assert.match(r.stdout, /\[Error\]: KeshFactory - \(\d+\) initKeshInspector: the port must be an integer from 0 to 65535, not 70000\n/);
});
