#!/usr/bin/env node
// A log flood: Vusers log in a tight loop for a while, at level debug, while the runner's own
// event loop ticks every millisecond. Shows how long the runner's loop stalls, how far its memory
// grows and how many lines arrive or are reported dropped. Each build named runs in a child of
// its own in the same run, so two builds compare side by side.
//   node bench/logFlood.js [--builds build/node-20,/path/to/other/build] [--vusers 4] [--seconds 2]
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs } = require('node:util');

const { values } = parseArgs({
  options: {
    builds: { type: 'string', default: path.relative(process.cwd(), require('../lib/buildDir').lineBuildDir()) },
    vusers: { type: 'string', default: '4' },
    seconds: { type: 'string', default: '2' },
    child: { type: 'string' },
  },
});

const SCRIPT = `
let n = 0;
function flood(ms) {
  const end = Date.now() + Number(ms);
  while (Date.now() < end) {
    for (let i = 0; i < 100; ++i) keshConsole('flood line ' + n++ + ' of Vuser ' + vuser_id, 'Debug');
  }
}
// Asked once the flood is over, so that the count itself is not among the dropped lines.
function report() {
  keshConsole('FLOODED ' + n, 'Info');
}
`;

async function child({ script, vusers, seconds }) {
  const kesh = require(path.join(__dirname, '..'));
  let lines = 0;
  let sent = 0;
  let dropped = 0;
  let flooded = 0;
  kesh.onLogMessage((line) => {
    ++lines;
    const f = / FLOODED (\d+)$/.exec(line);
    if (f) {
      sent += Number(f[1]);
      ++flooded;
    }
    const d = /(\d+) log lines were dropped/.exec(line);
    if (d) dropped += Number(d[1]);
  });
  kesh.setLogLevel('debug');
  const ids = Array.from({ length: vusers }, (_, i) => i + 1);
  for (const id of ids) kesh.createKeshThread(id, script, '{}');
  await Promise.all(ids.map((id) => kesh.startKeshThread(id)));
  const rss0 = process.memoryUsage.rss();
  let peak = rss0;
  let last = performance.now();
  let stall = 0;
  const tick = setInterval(() => {
    const now = performance.now();
    stall = Math.max(stall, now - last);
    last = now;
    peak = Math.max(peak, process.memoryUsage.rss());
  }, 1);
  const t0 = performance.now();
  for (const id of ids) kesh.runFunctionFromScript(id, 'flood', String(seconds * 1000));
  // Until the queue has run dry (no line for 200 ms) after the flood, then the counts.
  const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
  await sleep(seconds * 1000);
  let seen = -1;
  let quietSince = performance.now();
  while (performance.now() - quietSince < 200 && performance.now() - t0 < 120000) {
    await sleep(20);
    if (lines !== seen) {
      seen = lines;
      quietSince = performance.now();
    }
  }
  const drained = (quietSince - t0) / 1000;
  for (const id of ids) kesh.runFunctionFromScript(id, 'report', '');
  while (flooded < vusers && performance.now() - t0 < 130000) await sleep(10);
  clearInterval(tick);
  for (const id of ids) kesh.stopKeshThread(id);
  kesh.destroyKeshThreads();
  console.log('RESULT ' + JSON.stringify({
    stallMs: stall, rssGrowthMB: (peak - rss0) / 2 ** 20, sent, delivered: lines - flooded, dropped,
    seconds: drained,
  }));
}

function main() {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-flood-'));
  const script = path.join(dir, 'flood.js');
  fs.writeFileSync(script, SCRIPT);
  const spec = { script, vusers: Number(values.vusers), seconds: Number(values.seconds) };
  console.log(`node ${process.version}; ${spec.vusers} Vusers flood for ${spec.seconds} s at level debug`);
  console.log('build | runner loop stall ms | RSS growth MB | lines sent | delivered | reported dropped | s until quiet');
  try {
    for (const build of values.builds.split(',')) {
      const r = spawnSync(process.execPath, [__filename, '--child', JSON.stringify(spec)], {
        encoding: 'utf8', timeout: 300000, maxBuffer: 64 << 20,
        env: { ...process.env, KESH_BUILD_DIR: path.resolve(build) },
      });
      const found = (r.stdout || '').split('\n').find((l) => l.startsWith('RESULT '));
      if (!found) {
        console.log(`${build} | failed (status ${r.status}): ${(r.stderr || '').slice(-500)}`);
        continue;
      }
      const x = JSON.parse(found.slice(7));
      console.log([build, x.stallMs.toFixed(0), x.rssGrowthMB.toFixed(0), x.sent, x.delivered,
        x.dropped, x.seconds.toFixed(1)].join(' | '));
    }
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
}

if (values.child) child(JSON.parse(values.child));
else main();
