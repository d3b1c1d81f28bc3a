#!/usr/bin/env node
// Vusers that come and go: cycles of create, start, run a function in each, stop, destroy; the
// process's RSS and open descriptors after each cycle, against worker_threads created and
// terminated the same way, in the same run. Each kind runs in a child process of its own.
//   node bench/lifecycle.js [--cycles 20] [--users 50]
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs } = require('node:util');

const { values } = parseArgs({
  options: {
    cycles: { type: 'string', default: '20' },
    users: { type: 'string', default: '50' },
    child: { type: 'string' },
  },
});

const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const fds = () => fs.readdirSync('/proc/self/fd').length;
const SCRIPT = 'let calls = 0;\nfunction work() { calls += 1; }\n';

async function child({ kind, cycles, users, script }) {
  const rows = [];
  const ids = Array.from({ length: users }, (_, i) => i + 1);
  for (let cycle = 0; cycle < cycles; ++cycle) {
    if (kind === 'kesh') {
      const kesh = require(path.join(__dirname, '..'));
      kesh.onLogMessage(() => {});
      for (const id of ids) kesh.createKeshThread(id, script, '{}');
      await Promise.all(ids.map((id) => kesh.startKeshThread(id)));
      for (const id of ids) kesh.runFunctionFromScript(id, 'work', '');
      await sleep(50);
      for (const id of ids) kesh.stopKeshThread(id);
      kesh.destroyKeshThreads();
    } else {
      const { Worker } = require('node:worker_threads');
      const body = `require(${JSON.stringify(script)});
        const { parentPort } = require('node:worker_threads');
        parentPort.on('message', () => {}); parentPort.postMessage('ran');`;
      const workers = await Promise.all(ids.map(() => new Promise((resolve, reject) => {
        const w = new Worker(body, { eval: true });
        w.once('message', () => resolve(w));
        w.once('error', reject);
      })));
      for (const w of workers) w.postMessage('work');
      await sleep(50);
      await Promise.all(workers.map((w) => w.terminate()));
    }
    await sleep(100);
    rows.push({ rss: process.memoryUsage.rss() / 2 ** 20, fds: fds() });
  }
  console.log('RESULT ' + JSON.stringify(rows));
}

function main() {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-lifecycle-'));
  const script = path.join(dir, 'work.js');
  fs.writeFileSync(script, SCRIPT);
  const spec = { cycles: Number(values.cycles), users: Number(values.users), script };
  const runs = {};
  try {
    for (const kind of ['kesh', 'worker']) {
      const r = spawnSync(process.execPath, [__filename, '--child', JSON.stringify({ ...spec, kind })],
        { encoding: 'utf8', timeout: 600000 });
      const found = (r.stdout || '').split('\n').find((l) => l.startsWith('RESULT '));
      if (!found) throw new Error(`${kind} failed (status ${r.status} ${r.signal}): ${r.stderr}`);
      runs[kind] = JSON.parse(found.slice(7));
    }
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
  console.log(`node ${process.version}; ${spec.users} users per cycle; RSS in MiB after each cycle`);
  console.log('cycle | Vusers RSS | growth | fds | workers RSS | growth | fds');
  for (let i = 0; i < spec.cycles; ++i) {
    const a = runs.kesh[i];
    const b = runs.worker[i];
    const growth = (rows) => (i === 0 ? '-' : (rows[i].rss - rows[i - 1].rss).toFixed(1));
    console.log([i + 1, a.rss.toFixed(1), growth(runs.kesh), a.fds, b.rss.toFixed(1), growth(runs.worker), b.fds].join(' | '));
  }
  const perCycle = (rows) => (rows[rows.length - 1].rss - rows[1].rss) / (rows.length - 2);
  console.log(`RSS growth per cycle after the first two: Vusers ${perCycle(runs.kesh).toFixed(2)} MiB, ` +
    `workers ${perCycle(runs.worker).toFixed(2)} MiB`);
}

if (values.child) child(JSON.parse(values.child));
else main();
