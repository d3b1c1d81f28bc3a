#!/usr/bin/env node
// Time for a Vuser to require a tree of 50 modules (about 1 MB): the first Vuser of a process
// reads, compiles and caches every file; later Vusers take texts and code caches from the process.
//   node bench/require.js [processes] [laterVusers]
'use strict';
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const kModules = 50;
const kFunctionsPerModule = 125;

function moduleText(i) {
  const children = [2 * i + 1, 2 * i + 2].filter((c) => c < kModules);
  const lines = children.map((c) => `const child${c} = require('./m${c}');`);
  for (let f = 0; f < kFunctionsPerModule; f++) {
    lines.push(`function f${f}(list, limit) { let total = ${f}; for (let i = 0; i < list.length && ` +
      `i < limit; i++) { total += list[i] * ${f + 1} - (i % 7); } return { total, name: 'f${f}' }; }`);
  }
  const calls = children.map((c) => `child${c}.sum`).join(' + ') || '0';
  lines.push(`module.exports = { id: ${i}, sum: ${i} + ${calls}, run: f0 };`);
  return lines.join('\n') + '\n';
}

function runProcess(dir, later) {
  const main = path.join(dir, 'main.js');
  const lib = path.join(__dirname, '..', 'lib', 'index.js');
  const code = `
    const k = require(${JSON.stringify(lib)});
    k.onLogMessage(() => {});
    const runOne = async (id) => {
      k.createKeshThread(id, ${JSON.stringify(main)}, '{}');
      await k.startKeshThread(id);
      k.stopKeshThread(id);
    };
    (async () => {
      for (let id = 1; id <= ${later + 1}; id++) await runOne(id);
      k.destroyKeshThreads();
    })();`;
  const r = spawnSync(process.execPath, ['-e', code], { encoding: 'utf8', timeout: 120000 });
  const times = [...r.stdout.matchAll(/^BENCH (\S+) (\d+)$/gm)].map((m) => Number(m[1]));
  if (r.status !== 0 || times.length !== later + 1 ||
      [...r.stdout.matchAll(/^BENCH \S+ (\d+)$/gm)].some((m) => Number(m[1]) !== kModules * (kModules - 1) / 2)) {
    throw new Error(`benchmark process failed (${r.status}):\n${r.stdout}\n${r.stderr}`);
  }
  return times;
}

const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];

const processes = Number(process.argv[2] || 3);
const later = Number(process.argv[3] || 5);
const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-bench-'));
let bytes = 0;
for (let i = 0; i < kModules; i++) {
  const text = moduleText(i);
  bytes += Buffer.byteLength(text);
  fs.writeFileSync(path.join(dir, `m${i}.js`), text);
}
fs.writeFileSync(path.join(dir, 'main.js'), `
  const t0 = process.hrtime.bigint();
  const root = keshRequire('./m0', __dirname);
  console.log('BENCH ' + Number(process.hrtime.bigint() - t0) / 1e6 + ' ' + root.sum);`);

console.log(`${kModules} modules, ${(bytes / 1024).toFixed(0)} KiB, ${processes} processes, ` +
  `1 first + ${later} later Vusers each (sequential)`);
const firsts = [];
const laters = [];
for (let p = 0; p < processes; p++) {
  const [first, ...rest] = runProcess(dir, later);
  firsts.push(first);
  laters.push(median(rest));
  console.log(`process ${p + 1}: first ${first.toFixed(1)} ms, later (median) ` +
    `${median(rest).toFixed(1)} ms  [${rest.map((t) => t.toFixed(1)).join(', ')}]`);
}
const f = median(firsts);
const l = median(laters);
console.log(`median first ${f.toFixed(1)} ms, later ${l.toFixed(1)} ms, ratio first/later ` +
  `${(f / l).toFixed(1)}`);
fs.rmSync(dir, { recursive: true, force: true });
