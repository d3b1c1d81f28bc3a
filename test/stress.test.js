'use strict';
// Vusers coming and going at random moments, as in a long run.
const test = require('node:test');
const assert = require('node:assert');
const { spawn } = require('node:child_process');
const path = require('node:path');
const { scenario, scriptDir, modulePath } = require('./helpers');

const addonFile = path.join(require('../lib/buildDir').buildDir(), 'ostrale-kesh.node');
const seed = Number(process.env.KESH_STRESS_SEED || Date.now() % 100000);
const dir = scriptDir({
  'busy.js': `
    let n = 0;
    _enableRunningAsyncCallbacks(); _setTimer(true, () => { n += 1; }, 1);
    function work(p) { n += typeof p === 'object' ? 1 : 2; }
    async function later() { await _waitForTimer(_setTimer(false, () => {}, 2)); n += 1; }`,
});
const script = JSON.stringify(path.join(dir, 'busy.js'));
// A small generator with a seed, so that a failing run can be repeated (KESH_STRESS_SEED).
const RANDOM = `let state = SEED; const random = () => ((state = (state * 1103515245 + 12345) % 2147483648) / 2147483648);`;

test(`200 lifetimes of 5 Vusers with random timing and run-function floods (seed ${seed})`, () => {
  const r = scenario(`
    ${RANDOM.replace('SEED', String(seed))}
    const fds = () => require('node:fs').readdirSync('/proc/self/fd').length;
    const counts = [];
    (async () => {
      let first = 1;
      for (let cycle = 0; cycle < 200; ++cycle) {
        k.onLogMessage(() => {});
        const ids = [0, 1, 2, 3, 4].map((i) => first + i);
        first += random() < 0.5 ? 5 : 0;   // ids are sometimes reused, sometimes new
        for (const id of ids) k.createKeshThread(id, ${script}, '{}');
        const started = Promise.all(ids.map((id) => k.startKeshThread(id)));
        if (random() < 0.5) await started;
        for (let i = Math.floor(random() * 30); i > 0; --i) {
          k.runFunctionFromScript(ids[Math.floor(random() * ids.length)], random() < 0.5 ? 'work' : 'later', random() < 0.5 ? '{"a":1}' : 'text');
        }
        if (random() < 0.5) await sleep(Math.floor(random() * 4));
        for (const id of ids.sort(() => random() - 0.5)) k.stopKeshThread(id);
        await started;
        k.destroyKeshThreads();
        counts.push(fds());
      }
      console.log('FDS ' + JSON.stringify(counts));
    })();`, { timeout: 60000 });
  assert.strictEqual(r.status, 0, r.stderr);
  // Descriptors settle after the first lifetime and do not grow over the rest.
  const counts = JSON.parse(/FDS (.*)/.exec(r.stdout)[1]);
  assert.deepStrictEqual(counts.slice(1).filter((n) => n !== counts[0]), [], `descriptors per lifetime: ${counts}`);
});

test(`processes that end at random moments with Vusers running end by their own code (seed ${seed})`, async () => {
  const run = (i) => new Promise((resolve) => {
    const [ending, status] = [['process.exit(5)', 5], ['undefined', 0], ['(() => { throw new Error("x"); })()', 1]][i % 3];
    // A natural end needs no logger: an attached one keeps the loop alive.
    const code = `
      ${RANDOM.replace('SEED', String(seed + i))}
      const k = require(${JSON.stringify(i % 2 === 0 ? addonFile : modulePath)});
      if (${status} !== 0 && random() < 0.5) k.onLogMessage(() => {});
      const ids = [1, 2, 3, 4];
      for (const id of ids) k.createKeshThread(id, ${script}, '{}');
      for (const id of ids) k.startKeshThread(id).catch(() => {});
      for (const id of ids) k.runFunctionFromScript(id, 'work', '');
      setTimeout(() => { ${ending}; }, Math.floor(random() * 40));`;
    const child = spawn(process.execPath, ['-e', code], { stdio: ['ignore', 'ignore', 'pipe'] });
    let stderr = '';
    child.stderr.on('data', (d) => { stderr += d; });
    const timer = setTimeout(() => child.kill('SIGKILL'), 30000);
    child.on('exit', (exitCode, signal) => {
      clearTimeout(timer);
      resolve({ i, status, exitCode, signal, stderr: stderr.slice(-300) });
    });
  });
  for (let i = 0; i < 24; i += 4) {
    for (const r of await Promise.all([i, i + 1, i + 2, i + 3].map(run))) {
      assert.strictEqual(r.exitCode, r.status, JSON.stringify(r));
    }
  }
});
