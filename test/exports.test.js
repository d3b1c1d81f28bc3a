'use strict';
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir } = require('./helpers');

test('id and port checks of every command, with their texts and the 32-bit cut; destroyKeshThreads may come again', () => {
  const r = scenario(`
    const out = [];
    const call = (name, ...a) => { try { k[name](...a); out.push('ok'); } catch (e) { out.push(e.constructor.name + ' ' + e.message); } };
    for (const name of ['createKeshThread', 'startKeshThread', 'stopKeshThread', 'runFunctionFromScript']) {
      call(name, Symbol('id'));
      call(name, { valueOf() { throw new Error('x'); } });
    }
    for (const name of ['startKeshThread', 'stopKeshThread', 'runFunctionFromScript']) {
      for (const id of [undefined, 2 ** 32 + 1, -1, 4294967295, '12']) call(name, id);
    }
    call('initKeshInspector', '127.0.0.1', 9229);
    k.destroyKeshThreads(); k.destroyKeshThreads();
    call('stopKeshThread', 3);
    k.createKeshThread(1, ${JSON.stringify(path.join(scriptDir({ 'idle.js': '' }), 'idle.js'))}, '{}');
    for (const port of [65536, -1, NaN, 0.5, Infinity, '9229', undefined, 0, 65535]) call('initKeshInspector', '127.0.0.1', port);
    k.destroyKeshThreads();
    console.log('RESULT' + JSON.stringify(out));`);
  assert.strictEqual(r.status, 0);
  const invalid = 'Error missing/invalid Vuser id';
  const none = (ids) => ids.map((id) => `Error no active thread for Vuser id ${id}`);
  const refused = 'RangeError initKeshInspector: the port must be an integer from 0 to 65535';
  assert.deepStrictEqual(JSON.parse(r.stdout.split('RESULT')[1]), [
    ...new Array(8).fill(invalid), ...[1, 2, 3].flatMap(() => none([0, 1, -1, -1, 12])),
    'Error Zarnik inspector available only for single Vuser', ...none([3]),
    ...['65536', '-1', 'NaN', '0.5', 'Infinity'].map((p) => `${refused}, not ${p}`), refused, refused, 'ok', 'ok',
  ]);
  // The miss is logged for the Vuser; runFunctionFromScript logs its message before throwing.
  for (const text of ["Vuser \\[12\\] didn't find active thread", 'no active thread for Vuser id 12', 'missing/invalid Vuser id',
    'Zarnik inspector available only for single Vuser', 'initKeshInspector: the port must be an integer from 0 to 65535, not 65536']) {
    assert.match(r.stdout, new RegExp(`\\[Error\\]: KeshFactory - \\(\\d+\\) ${text}\\n`));
  }
});
