#!/usr/bin/env node
// Busy Vusers against worker_threads, in one run, on one C echo service built here.
// Each user keeps one request in flight: a Vuser with `_send` and a callback that sends the next
// request, a worker with a net.Socket speaking the same line protocol. Every figure comes from a
// fresh child process; medians over rounds.
//   node bench/messaging.js [--users 1,10,50,200] [--rounds 5] [--seconds 3] [--warmup 0.5]
//                           [--probes all|none|load,runfn,starts,sync] [--node-flags "..."]
//                           [--busy N]  (load: only N of the users send, the others stay idle)
'use strict';
const { spawn, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { parseArgs } = require('node:util');

const { values } = parseArgs({
  options: {
    users: { type: 'string', default: '1,10,50,200' },
    rounds: { type: 'string', default: '5' },
    seconds: { type: 'string', default: '3' },
    warmup: { type: 'string', default: '0.5' }, // seconds of load before the measured window
    probes: { type: 'string', default: 'all' },
    'node-flags': { type: 'string', default: '' },
    busy: { type: 'string' },
    child: { type: 'string' },
  },
});

const median = (xs) => {
  const s = xs.filter(Number.isFinite).sort((a, b) => a - b);
  if (s.length === 0) return NaN;
  return s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2;
};
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const cpuMicros = () => {
  const u = process.cpuUsage();
  return u.user + u.system;
};
async function until(test, ms, what) {
  const deadline = Date.now() + ms;
  while (!test()) {
    if (Date.now() > deadline) throw new Error(`timed out waiting for ${what}`);
    await sleep(5);
  }
}

// Latencies in log-spaced buckets (16 per doubling, about 4.4% wide), so that 200 users' worth of
// samples stay small and merge exactly.
const HISTOGRAM = `
const bucketOf = (us) => (us < 1 ? 0 : Math.floor(Math.log2(us) * 16));
function record(hist, us) { const b = bucketOf(us); hist.set(b, (hist.get(b) || 0) + 1); }
`;
function percentile(hist, q) {
  const entries = [...hist.entries()].sort((a, b) => a[0] - b[0]);
  const total = entries.reduce((s, [, n]) => s + n, 0);
  let seen = 0;
  for (const [bucket, n] of entries) {
    seen += n;
    if (seen >= q * total) return 2 ** ((bucket + 1) / 16);
  }
  return NaN;
}
const line = (id) => `{"messageId":${id},"socketId":"","responseType":0,"data":"ping"}\n`;

// ---- what each user runs ----
const VUSER_SCRIPT = `${HISTOGRAM}
const line = ${line.toString()};
_enableRunningAsyncCallbacks();
_initNetworking(args.port, '127.0.0.1');
let hist = new Map();
let count = 0;
let errors = 0;
let running = false;
let nextId = 0;
let noops = 0;
const ballast = [];
for (let i = 0; i < (args.heapMB || 0) * 16; ++i) ballast.push(new Array(8192).fill(i));
function next() {
  const id = (nextId = nextId >= 0x7fffffff ? 1 : nextId + 1);
  const t0 = performance.now();
  _send(id, line(id), (answer) => {
    if (!running) return;
    if (!answer || answer.messageId !== id) ++errors;
    record(hist, (performance.now() - t0) * 1000);
    ++count;
    next();
  });
}
function go() { running = true; next(); }
function mark() { hist = new Map(); count = 0; errors = 0; }
function halt() {
  running = false;
  keshConsole('RESULT ' + JSON.stringify({ count, errors, hist: [...hist] }), 'Info');
}
function noop() { ++noops; }
function report() { keshConsole('RESULT ' + JSON.stringify({ noops, ballast: ballast.length }), 'Info'); }
function syncLoop(n) {
  const t0 = performance.now();
  for (let i = 1; i <= n; ++i) {
    const answer = _sendSync(i, line(i));
    if (!answer || answer.messageId !== i) ++errors;
  }
  keshConsole('RESULT ' + JSON.stringify({ us: ((performance.now() - t0) * 1000) / n, errors }), 'Info');
}
`;

const WORKER_SCRIPT = `${HISTOGRAM}
const line = ${line.toString()};
const { parentPort, workerData } = require('node:worker_threads');
const net = require('node:net');
let hist = new Map();
let count = 0;
let errors = 0;
let running = false;
let nextId = 0;
let noops = 0;
let waiting = null;
let pending = '';
const ballast = [];
for (let i = 0; i < (workerData.heapMB || 0) * 16; ++i) ballast.push(new Array(8192).fill(i));
const socket = net.connect(workerData.port, '127.0.0.1', () => parentPort.postMessage('ready'));
socket.setNoDelay(true);
socket.setEncoding('utf8');
socket.on('data', (chunk) => {
  pending += chunk;
  let end;
  while ((end = pending.indexOf('\\n')) >= 0) {
    const text = pending.slice(0, end);
    pending = pending.slice(end + 1);
    const answer = JSON.parse(text);
    const w = waiting;
    waiting = null;
    if (w) w(answer);
  }
});
function next() {
  const id = (nextId = nextId >= 0x7fffffff ? 1 : nextId + 1);
  const t0 = performance.now();
  waiting = (answer) => {
    if (!running) return;
    if (!answer || answer.messageId !== id) ++errors;
    record(hist, (performance.now() - t0) * 1000);
    ++count;
    next();
  };
  socket.write(line(id));
}
parentPort.on('message', (m) => {
  if (m === 'go') { running = true; next(); }
  else if (m === 'mark') { hist = new Map(); count = 0; errors = 0; }
  else if (m === 'halt') { running = false; parentPort.postMessage({ count, errors, hist: [...hist] }); }
  else if (m === 'noop') ++noops;
  else if (m === 'report') parentPort.postMessage({ noops, ballast: ballast.length });
});
`;

// ---- child side: one kind of user, one experiment; prints one RESULT line ----
function makeUsers(kind, { n, port, heapMB = 0, dir, firstId = 1 }) {
  if (kind === 'kesh') {
    const kesh = require(path.join(__dirname, '..'));
    const results = [];
    let lines = 0;
    if (!makeUsers.attached) {
      kesh.onLogMessage((text) => {
        ++lines;
        const at = text.indexOf('RESULT ');
        if (at >= 0) results.push(JSON.parse(text.slice(at + 7)));
      });
      makeUsers.attached = true;
      makeUsers.state = { results, lines: () => lines };
    }
    const state = makeUsers.state;
    const script = path.join(dir, 'vuser.js');
    const ids = Array.from({ length: n }, (_, i) => firstId + i);
    return {
      lines: state.lines,
      async start() {
        for (const id of ids) kesh.createKeshThread(id, script, JSON.stringify({ port, heapMB }));
        await Promise.all(ids.map((id) => kesh.startKeshThread(id)));
      },
      async startOneByOne() {
        for (const id of ids) {
          kesh.createKeshThread(id, script, JSON.stringify({ port, heapMB }));
          await kesh.startKeshThread(id);
        }
      },
      tell(what, param = '', count = ids.length) {
        for (const id of ids.slice(0, count)) kesh.runFunctionFromScript(id, what, param);
      },
      async collect(what, param = '') {
        state.results.length = 0;
        this.tell(what, param);
        await until(() => state.results.length >= n, 60000, `${n} results`);
        return state.results.splice(0);
      },
      async stop() {
        for (const id of ids) kesh.stopKeshThread(id);
        await sleep(10);
        kesh.destroyKeshThreads();
      },
    };
  }
  const { Worker } = require('node:worker_threads');
  const workers = [];
  return {
    lines: () => 0,
    async start() {
      await Promise.all(Array.from({ length: n }, () => new Promise((resolve, reject) => {
        const w = new Worker(WORKER_SCRIPT, { eval: true, workerData: { port, heapMB } });
        workers.push(w);
        w.once('message', resolve);
        w.once('error', reject);
      })));
    },
    tell(what, param = '', count = workers.length) {
      for (const w of workers.slice(0, count)) w.postMessage(what);
    },
    async collect(what) {
      const answers = workers.map((w) => new Promise((r) => w.once('message', r)));
      this.tell(what);
      return Promise.all(answers);
    },
    async stop() {
      await Promise.all(workers.map((w) => w.terminate()));
    },
  };
}

const experiments = {
  // Throughput, CPU and latency with every user (or the first `busy`) busy.
  async load(kind, { n, port, seconds, dir, warmup = 0.5, busy = n }) {
    const users = makeUsers(kind, { n, port, dir });
    await users.start();
    users.tell('go', '', busy);
    await sleep(warmup * 1000);
    users.tell('mark');
    const cpu0 = cpuMicros();
    const lines0 = users.lines();
    const t0 = performance.now();
    await sleep(seconds * 1000);
    const elapsed = (performance.now() - t0) / 1000;
    const cpu = cpuMicros() - cpu0;
    const lines = users.lines() - lines0;
    const parts = await users.collect('halt');
    await users.stop();
    const hist = new Map();
    let requests = 0;
    let errors = 0;
    for (const p of parts) {
      requests += p.count;
      errors += p.errors;
      for (const [b, c] of p.hist) hist.set(b, (hist.get(b) || 0) + c);
    }
    return {
      rps: requests / elapsed, cpuPerRequest: cpu / requests, p99: percentile(hist, 0.99) / 1000,
      linesPerRequest: lines / requests, errors,
    };
  },
  // Process CPU of a run function that does nothing, paced so that calls never collapse.
  async runfn(kind, { port, dir, heapMB }) {
    const users = makeUsers(kind, { n: 1, port, dir, heapMB });
    await users.start();
    await users.collect('report');
    const calls = 300;
    const cpu0 = cpuMicros();
    for (let i = 0; i < calls; ++i) {
      users.tell('noop');
      await sleep(2);
    }
    const [report] = await users.collect('report');
    const cpu = cpuMicros() - cpu0;
    await users.stop();
    return { msPerCall: cpu / 1000 / report.noops, calls: report.noops };
  },
  // 50 Vusers started one after the other, with the runner's own heap empty or holding heapMB.
  async starts(kind, { port, dir, heapMB }) {
    const ballast = [];
    for (let i = 0; i < heapMB * 16; ++i) ballast.push(new Array(8192).fill(i));
    const users = makeUsers(kind, { n: 50, port, dir });
    const t0 = performance.now();
    await users.startOneByOne();
    const ms = performance.now() - t0;
    await users.stop();
    return { ms, ballast: ballast.length };
  },
  // Blocking round trips from one Vuser.
  async sync(kind, { port, dir }) {
    const users = makeUsers(kind, { n: 1, port, dir });
    await users.start();
    await users.collect('syncLoop', '2000'); // warm-up
    const [result] = await users.collect('syncLoop', '20000');
    await users.stop();
    return result;
  },
};

async function child(spec) {
  // A child started by hand (for a profiler) may name a folder of its own.
  const script = path.join(spec.dir, 'vuser.js');
  if (!fs.existsSync(script)) fs.writeFileSync(script, VUSER_SCRIPT);
  const result = await experiments[spec.experiment](spec.kind, spec);
  console.log('RESULT ' + JSON.stringify(result));
  process.exit(0);
}

// ---- parent side ----
function runChild(spec) {
  const flags = values['node-flags'].split(' ').filter(Boolean);
  const r = spawnSync(process.execPath, [...flags, __filename, '--child', JSON.stringify(spec)],
    { encoding: 'utf8', timeout: 300000, maxBuffer: 64 << 20 });
  const found = (r.stdout || '').split('\n').find((l) => l.startsWith('RESULT ')) ?? '';
  if (r.status !== 0 || !found) {
    throw new Error(`${JSON.stringify(spec)} failed (status ${r.status} ${r.signal}): ` +
      `${(r.stderr || '').slice(-2000)}`);
  }
  return JSON.parse(found.slice('RESULT '.length));
}

async function startEcho(dir) {
  const binary = path.join(dir, 'echo');
  const cc = spawnSync('cc', ['-O2', '-o', binary, path.join(__dirname, 'echo.c')], { encoding: 'utf8' });
  if (cc.status !== 0) throw new Error(`cannot build the echo service: ${cc.stderr}`);
  const server = spawn(binary, ['serve', '0'], { stdio: ['ignore', 'pipe', 'inherit'] });
  const port = await new Promise((resolve, reject) => {
    let out = '';
    server.stdout.on('data', (d) => {
      out += d;
      const m = /listening (\d+)/.exec(out);
      if (m) resolve(Number(m[1]));
    });
    server.once('exit', () => reject(new Error('echo service ended')));
  });
  return { binary, port, server };
}

async function main() {
  const users = values.users.split(',').map(Number);
  const rounds = Number(values.rounds);
  const seconds = Number(values.seconds);
  const all = ['load', 'runfn', 'starts', 'sync'];
  const probes = values.probes === 'all' ? all : values.probes === 'none' ? ['load']
    : values.probes.split(',');
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-messaging-'));
  fs.writeFileSync(path.join(dir, 'vuser.js'), VUSER_SCRIPT);
  const echo = await startEcho(dir);
  const base = { port: echo.port, dir, warmup: Number(values.warmup) };
  const fmt = (x, digits = 1) => (Number.isFinite(x) ? x.toFixed(digits) : '-');
  const ratio = (a, b) => fmt(a / b, 2);
  console.log(`node ${process.version} ${values['node-flags']}, ${os.cpus().length} cpus; ` +
    `median of ${rounds} round(s), ${seconds} s each; A = Vusers, B = worker_threads`);
  try {
    if (probes.includes('load')) {
      console.log('users | req/s A | req/s B | A/B | CPU us/req A | B | A/B | p99 ms A | B | lines/req A | errors');
      for (const n of users) {
        const busy = Math.min(n, Number(values.busy ?? n));
        const got = { kesh: [], worker: [] };
        for (let r = 0; r < rounds; ++r) {
          for (const kind of ['kesh', 'worker']) {
            got[kind].push(runChild({ experiment: 'load', kind, n, seconds, busy, ...base }));
          }
        }
        const m = (kind, key) => median(got[kind].map((x) => x[key]));
        const errors = [...got.kesh, ...got.worker].reduce((s, x) => s + x.errors, 0);
        console.log([busy < n ? `${n} (${busy} busy)` : n, fmt(m('kesh', 'rps'), 0), fmt(m('worker', 'rps'), 0),
          ratio(m('kesh', 'rps'), m('worker', 'rps')), fmt(m('kesh', 'cpuPerRequest')),
          fmt(m('worker', 'cpuPerRequest')), ratio(m('kesh', 'cpuPerRequest'), m('worker', 'cpuPerRequest')),
          fmt(m('kesh', 'p99'), 2), fmt(m('worker', 'p99'), 2), fmt(m('kesh', 'linesPerRequest'), 2),
          errors].join(' | '));
      }
    }
    if (probes.includes('runfn')) {
      console.log('run function that does nothing | heap | ms CPU/call A | B | A/B');
      for (const heapMB of [0, 32]) {
        const got = { kesh: [], worker: [] };
        for (let r = 0; r < rounds; ++r) {
          for (const kind of ['kesh', 'worker']) got[kind].push(runChild({ experiment: 'runfn', kind, heapMB, ...base }));
        }
        const a = median(got.kesh.map((x) => x.msPerCall));
        const b = median(got.worker.map((x) => x.msPerCall));
        console.log(`noop | ${heapMB} MB | ${fmt(a, 3)} | ${fmt(b, 3)} | ${ratio(a, b)}`);
      }
    }
    if (probes.includes('starts')) {
      const times = { 0: [], 256: [] };
      for (let r = 0; r < rounds; ++r) {
        for (const heapMB of [0, 256]) times[heapMB].push(runChild({ experiment: 'starts', kind: 'kesh', heapMB, ...base }).ms);
      }
      const a = median(times[0]);
      const b = median(times[256]);
      console.log(`50 Vuser starts | runner heap empty ${fmt(a, 0)} ms | 256 MB ${fmt(b, 0)} ms | ratio ${ratio(b, a)}`);
    }
    if (probes.includes('sync')) {
      const a = [];
      const c = [];
      for (let r = 0; r < rounds; ++r) {
        a.push(runChild({ experiment: 'sync', kind: 'kesh', ...base }).us);
        const out = spawnSync(echo.binary, ['client', String(echo.port), '20000', line(1).trim()], { encoding: 'utf8' });
        c.push(Number(/us-per-round-trip ([\d.]+)/.exec(out.stdout)?.[1]));
      }
      console.log(`_sendSync round trip | Vuser ${fmt(median(a), 1)} us | blocking C client ${fmt(median(c), 1)} us | ratio ${ratio(median(a), median(c))}`);
    }
  } finally {
    echo.server.kill();
    fs.rmSync(dir, { recursive: true, force: true });
  }
}

if (values.child) child(JSON.parse(values.child));
else main().catch((e) => { console.error(e); process.exit(1); });
