#!/usr/bin/env node
// Start-up time and idle memory of Vusers, against worker_threads running the same script in
// the same run. Each figure comes from a fresh child process, so caches and heaps start cold.
//   node bench/startup.js [--counts 1,10,50] [--rounds 1] [--scripts small,big]
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs } = require('node:util');

const { values } = parseArgs({
  options: {
    counts: { type: 'string', default: '1,10,50' },
    rounds: { type: 'string', default: '1' },
    scripts: { type: 'string', default: 'small,big' },
    child: { type: 'string' },
  },
});

const median = (xs) => {
  if (xs.length === 0) return NaN;
  const s = [...xs].sort((a, b) => a - b);
  return s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2;
};
const idleRss = async () => {
  await new Promise((r) => setTimeout(r, 500));
  return process.memoryUsage.rss();
};

// ---- child side: one kind, one script, n Vusers; prints one JSON line ----
async function child({ kind, script, n }) {
  const now = () => performance.now();
  let startOne;
  let stopAll;
  if (kind === 'kesh') {
    const kesh = require(path.join(__dirname, '..'));
    kesh.onLogMessage(() => {});
    const ids = [];
    startOne = (id) => {
      ids.push(id);
      kesh.createKeshThread(id, script, '{}');
      return kesh.startKeshThread(id);
    };
    stopAll = () => {
      for (const id of ids.splice(0)) kesh.stopKeshThread(id);
      kesh.destroyKeshThreads();
    };
  } else {
    const { Worker } = require('node:worker_threads');
    const workers = [];
    // The worker runs the script, reports, and stays alive like a Vuser does.
    const body = `require(${JSON.stringify(script)});
      const { parentPort } = require('node:worker_threads');
      parentPort.on('message', () => {}); parentPort.postMessage('ran');`;
    startOne = () => new Promise((resolve, reject) => {
      const w = new Worker(body, { eval: true });
      workers.push(w);
      w.once('message', resolve);
      w.once('error', reject);
    });
    stopAll = () => Promise.all(workers.splice(0).map((w) => w.terminate()));
  }
  const base = await idleRss();
  const result = { kind, n };
  if (n === 1) {
    const t0 = now();
    await startOne(1);
    result.first = now() - t0;
  } else {
    // One after the other: the first pays for cold caches, the rest show the steady cost.
    const times = [];
    for (let i = 1; i <= n; ++i) {
      const t0 = now();
      await startOne(i);
      times.push(now() - t0);
    }
    result.first = times[0];
    result.others = median(times.slice(1));
    result.rssPerVuser = ((await idleRss()) - base) / n / 2 ** 20;
    await stopAll();
    // All at once, on a fresh set of ids: what a runner ramping up a batch sees.
    const t0 = now();
    await Promise.all(Array.from({ length: n }, (_, i) => startOne(1000 + i)));
    result.together = now() - t0;
  }
  await stopAll();
  console.log('RESULT ' + JSON.stringify(result));
}

// ---- parent side ----
function makeScripts() {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-bench-'));
  const small = path.join(dir, 'small.js');
  fs.writeFileSync(small, 'const started = Date.now();\nfunction work(x) { return x * 2; }\nwork(started);\n');
  const big = path.join(dir, 'big.js');
  const parts = [];
  for (let i = 0; parts.join('').length < 200 * 1024; ++i) {
    parts.push(`function step${i}(input) {\n  const out = [];\n  for (let k = 0; k < input.length; ++k) out.push(input[k] * ${i} + k);\n  return out.reduce((a, b) => a + b, ${i});\n}\n`);
  }
  parts.push('step0([1, 2, 3]);\n');
  fs.writeFileSync(big, parts.join(''));
  return { dir, scripts: { small, big } };
}

function runChild(kind, script, n) {
  const r = spawnSync(process.execPath,
    [__filename, '--child', JSON.stringify({ kind, script, n })],
    { encoding: 'utf8', timeout: 300000 });
  const line = (r.stdout || '').split('\n').find((l) => l.startsWith('RESULT ')) ?? '';
  if (r.status !== 0 || !line) {
    throw new Error(`${kind} n=${n} failed (status ${r.status}): ${r.stderr}`);
  }
  return JSON.parse(line.slice('RESULT '.length));
}

function main() {
  const counts = values.counts.split(',').map(Number);
  const rounds = Number(values.rounds);
  const { dir, scripts } = makeScripts();
  const fmt = (x, unit) => (Number.isFinite(x) ? `${x.toFixed(1)} ${unit}` : '-');
  const ratio = (a, b) => (Number.isFinite(a) && Number.isFinite(b) ? (a / b).toFixed(2) : '-');
  console.log(`node ${process.version}, ${os.cpus().length} cpus; median of ${rounds} round(s); ` +
    'ratio = Vuser / worker (below 1 means Vusers win)');
  console.log('script | N | figure | Vusers | workers | ratio');
  try {
    const chosen = values.scripts.split(',');
    for (const [name, script] of Object.entries(scripts).filter(([name]) => chosen.includes(name))) {
      for (const n of counts) {
        const runs = { kesh: [], worker: [] };
        for (let r = 0; r < rounds; ++r) {
          for (const kind of ['kesh', 'worker']) runs[kind].push(runChild(kind, script, n));
        }
        const pick = (kind, key) => median(runs[kind].map((x) => x[key]).filter(Number.isFinite));
        const rows = [['first start', 'first', 'ms'], ['later starts (median)', 'others', 'ms'],
          [`${n} started at once`, 'together', 'ms'], ['idle RSS per Vuser', 'rssPerVuser', 'MiB']];
        for (const [label, key, unit] of rows) {
          const a = pick('kesh', key);
          const b = pick('worker', key);
          if (!Number.isFinite(a) && !Number.isFinite(b)) continue;
          console.log(`${name} | ${n} | ${label} | ${fmt(a, unit)} | ${fmt(b, unit)} | ${ratio(a, b)}`);
        }
      }
    }
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
}

if (values.child) child(JSON.parse(values.child));
else main();
