'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const path = require('node:path');
const { scriptDir } = require('./helpers');

const runner = path.join(__dirname, '..', 'bin', 'kesh-run.js');
const run = (...args) => spawnSync(process.execPath, [runner, ...args], { encoding: 'utf8', timeout: 30000 });

test('the example runner starts, shows and stops its Vusers, and reports failures by exit code', () => {
  const ok = run('--vusers', '3', '--log-level', 'debug', '--seconds', '0.5', '--args', '{"n":1}', '--run', 'step',
    '--param', '{"page":"a"}', '--every', '100', path.join(__dirname, '..', 'examples', 'hello.js'));
  assert.strictEqual(ok.status, 0, ok.stderr);
  for (const id of [1, 2, 3]) {
    assert.match(ok.stdout, new RegExp(`\\[Info\\] \\(\\d+\\) Vuser ${id} started with args \\{"n":1\\}`));
    assert.match(ok.stdout, new RegExp(`Vuser \\[${id}\\] finished thread execution`));
    assert.match(ok.stdout, new RegExp(`Vuser ${id} step 2 with \\{"page":"a"\\} done after`));
  }
  assert.match(ok.stdout, /3 of 3 Vusers started/);

  const dir = scriptDir({ 'bad.js': 'throw 1;' });
  const bad = run('--vusers', '2', '--seconds', '0', path.join(dir, 'bad.js'));
  assert.strictEqual(bad.status, 1);
  assert.match(bad.stdout, /0 of 2 Vusers started/);
  assert.match(bad.stderr, /Vuser \[2\] thread fail to start/);

  assert.strictEqual(run(path.join(dir, 'missing.js')).status, 1);
  assert.strictEqual(run('--vusers', '0', 'x.js').status, 2);
});
