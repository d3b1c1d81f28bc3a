'use strict';
// Under the ThreadSanitizer build (KESH_SANITIZE=thread npm test): many Vusers of one script
// start at once, each consuming the shared code caches of its main script and of a module.
const test = require('node:test');
const assert = require('node:assert');
const path = require('node:path');
const { scenario, scriptDir } = require('./helpers');

const threads = /libtsan/.test(process.env.LD_PRELOAD || '');

test('20 Vusers of one script start at once without a data race', { skip: !threads && 'only in the ThreadSanitizer build' }, () => {
  const dir = scriptDir({
    'main.js': "function f(a) { return a + 1; }\nconsole.log('UP ' + keshRequire('./mod', __dirname).twice(f(vuser_id)));",
    'mod.js': 'module.exports = { twice: (n) => 2 * n };',
  });
  const r = scenario(`
    k.onLogMessage(() => {});
    const ids = Array.from({ length: 20 }, (_, i) => i + 1);
    for (const id of ids) k.createKeshThread(id, ${JSON.stringify(path.join(dir, 'main.js'))}, '{}');
    Promise.all(ids.map((id) => k.startKeshThread(id))).then(() => {
      for (const id of ids) k.stopKeshThread(id);
      k.destroyKeshThreads();
    });`, { timeout: 120000 });
  assert.doesNotMatch(r.stderr, /ThreadSanitizer/, r.stderr.slice(0, 4000));
  assert.strictEqual(r.status, 0, r.stderr.slice(0, 4000));
  assert.strictEqual(r.stdout.match(/^UP \d+$/gm).length, 20);
});
