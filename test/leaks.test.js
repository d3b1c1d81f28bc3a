'use strict';
// Under the sanitizer build (KESH_SANITIZE=1 npm test): Vusers created, started, stopped and
// destroyed in cycles leave no leak whose allocation passes through the add-on.
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const { scriptDir, childPrelude } = require('./helpers');

const sanitized = /libasan/.test(process.env.LD_PRELOAD || '');

test('cycles of Vusers leak nothing through the add-on', { skip: !sanitized && 'only in the sanitizer build' }, () => {
  const dir = scriptDir({
    'work.js': `_enableRunningAsyncCallbacks();
      let n = 0; _setTimer(true, () => { n += 1; }, 2);
      function work(p) { n += p.a; keshRequire('./mod.json', __dirname); }`,
    'mod.json': '{"x":1}',
  });
  const code = `${childPrelude}
    (async () => {
      for (let cycle = 0; cycle < 6; ++cycle) {
        k.onLogMessage(() => {});
        const ids = [1, 2, 3];
        for (const id of ids) k.createKeshThread(id, ${JSON.stringify(path.join(dir, 'work.js'))}, '{}');
        await Promise.all(ids.map((id) => k.startKeshThread(id)));
        for (const id of ids) k.runFunctionFromScript(id, 'work', '{"a":1}');
        await sleep(30);
        for (const id of ids) k.stopKeshThread(id);
        k.destroyKeshThreads();
      }
      console.log('CYCLES DONE');
    })();`;
  const r = spawnSync(process.execPath, ['-e', code], {
    encoding: 'utf8',
    timeout: 120000,
    env: {
      ...process.env,
      ASAN_OPTIONS: 'detect_leaks=1',
      LSAN_OPTIONS: `suppressions=${path.join(__dirname, 'lsan.supp')}:print_suppressions=0`,
    },
  });
  assert.match(r.stdout, /CYCLES DONE/, r.stderr.slice(-3000));
  // One report per leak, its allocation stack below it.
  const ours = r.stderr.split(/\n(?=(?:Direct|Indirect) leak)/).filter((report) =>
    /leak of/.test(report) && /(\/sources\/|ostrale-kesh\.node|binding\.cc)/.test(report));
  assert.deepStrictEqual(ours, [], ours.join('\n\n').slice(0, 4000));
});
