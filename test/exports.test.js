'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { scenario } = require('./helpers');

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
