'use strict';
// One load run: a service (the embedded stand-in, or one already running), Vusers of one script
// started evenly over the ramp, their request reports gathered in a RunResult, and a stop that
// leaves no Vuser thread behind. bin/kesh-run.js is its command line; one run per process, since
// the add-on's log callback can be set only once.
const dns = require('node:dns');
const net = require('node:net');
const os = require('node:os');
const path = require('node:path');
const { monitorEventLoopDelay } = require('node:perf_hooks');
const { RunResult } = require('./results');
const requestReport = require('./requestReport');

const levelNames = ['error', 'warning', 'info', 'debug', 'trace'];

// Rank of a level name as the add-on or a script gives it ("Error", "trace", ...); a name a
// script made up counts as info.
function levelRank(name) {
  const lower = String(name).toLowerCase();
  const rank = levelNames.indexOf(lower === 'warn' ? 'warning' : lower);
  return rank === -1 ? 2 : rank;
}

// "HOST:PORT" with a dotted IPv4 address or a name that resolves to one: Vusers connect by address.
async function resolveService(text) {
  const match = /^(.+):(\d{1,5})$/.exec(text);
  const port = match ? Number(match[2]) : 0;
  if (!match || port < 1 || port > 65535) throw new Error(`--service must be HOST:PORT, not ${JSON.stringify(text)}`);
  const host = net.isIPv4(match[1]) ? match[1] : (await dns.promises.lookup(match[1], { family: 4 })).address;
  return { host, port };
}

// A Vuser waits for a refused connection until it is stopped; better to say so before starting any.
function probe({ host, port }, timeoutMs = 3000) {
  return new Promise((resolve, reject) => {
    const socket = net.connect({ host, port });
    const fail = (reason) => {
      socket.destroy();
      reject(new Error(`cannot reach the service at ${host}:${port}: ${reason}`));
    };
    socket.setTimeout(timeoutMs, () => fail(`no connection within ${timeoutMs} ms`));
    socket.once('error', (err) => fail(err.code || err.message));
    socket.once('connect', () => {
      socket.destroy();
      resolve();
    });
  });
}

// Lines of the add-on that tell a Vuser stopped by itself, and the line our own stop of such a
// Vuser then brings.
const kEndedPattern = /Vuser \[(\d+)\] (?:process exit requested with code -?\d+: stopping this Vuser|Error calling Vuser function \(promise rejected\))/;
const kRepeatedStopPattern = /Vuser \[(\d+)\] blocked another closing request/;
// The add-on's echo of our own setLogLevel.
const kLevelEchoPattern = /^KeshLogger - \(\d+\) called to set Log level with the following state: /;

const nextTurn = () => new Promise((resolve) => setImmediate(resolve));

class LoadRun {
  // options: script, vusers, firstId (this process's ids), args (an object), seconds,
  // rampSeconds, service (null for the embedded stand-in, or { host, port }), addonLogLevel,
  // serviceLog (pass the stand-in's own lines on), run, param, everyMs; for a result: runId,
  // shard { index, count }, scriptSha256. With `barrier` (lib/barrier.js) the measured window
  // starts at the barrier's T, once every shard has started its Vusers, and ends at an absolute
  // time; without it, at the first Vuser's start, and `seconds` after the last one's.
  // onLine(levelName, text): every log line that is no request report. onStopping(): the stop
  // begins. onBarrier(readyAt) and onRelease(T): the shard arrives at the barrier and passes it.
  constructor(options, { onLine, onStopping = () => {}, onBarrier = () => {}, onRelease = () => {} }) {
    this.options = options;
    this.onLine = onLine;
    this.onStopping = onStopping;
    this.onBarrier = onBarrier;
    this.onRelease = onRelease;
    this.barrierError = null;
    this.leaving = new AbortController(); // ends a wait at the barrier when the run is stopped
    this.ids = Array.from({ length: options.vusers }, (_, i) => options.firstId + i);
    this.vusers = new Map(); // id -> { startCalled, started, ended }
    this.timers = new Set();
    this.stoppingVusers = false; // from the first stopKeshThread on
    this.result = null;
    this.embedded = null;
    this.kesh = null;
    this.stopPromise = null;
    // Settled with the result once the run has stopped, at its end or when told to.
    this.finished = new Promise((resolve) => {
      this.finish = resolve;
    });
  }

  async start() {
    this.serviceReady = this.startService();
    await this.serviceReady;
    if (this.stopPromise) return;
    const { options, result: { service } } = this;
    const kesh = require('./index.js');
    this.kesh = kesh;
    kesh.onLogMessage((line, level) => this.onLog(line, level));
    kesh.setLogLevel(options.addonLogLevel);
    const argsText = JSON.stringify({ ...options.args, service: { host: service.host, port: service.port } });
    try {
      for (const id of this.ids) {
        kesh.createKeshThread(id, options.script, argsText);
        this.vusers.set(id, { startCalled: false, started: false, ended: false });
      }
    } catch (err) {
      await this.stop();
      throw err;
    }

    if (!options.barrier) this.measure(Date.now());
    this.unsettled = this.ids.length;
    if (this.unsettled === 0) this.later(0, () => this.allSettled());
    this.ids.forEach((id, i) => {
      const delay = (options.rampSeconds * 1000 * i) / this.ids.length;
      if (delay === 0) this.startOne(id);
      else this.later(delay, () => this.startOne(id));
    });
  }

  // Every Vuser has started or failed to: a single run measures on for `seconds`; a shard waits
  // at the barrier, then measures from T to T + seconds.
  async allSettled() {
    const { options } = this;
    if (!options.barrier) {
      this.later(options.seconds * 1000, () => this.stop());
      return;
    }
    const readyAt = Date.now();
    this.onBarrier(readyAt);
    let T;
    try {
      T = await options.barrier.arrive(readyAt, { signal: this.leaving.signal });
    } catch (err) {
      if (!this.stopPromise) this.barrierError = err;
      this.stop();
      return;
    }
    if (this.stopPromise) return;
    this.later(T - Date.now(), () => {
      this.measure(T);
      this.onRelease(T);
      this.later(T + options.seconds * 1000 - Date.now(), () => this.stop());
    });
  }

  measure(T) {
    const { options, kesh } = this;
    this.result.release(T, Date.now());
    this.cpuAtStart = process.cpuUsage();
    this.loopDelay = monitorEventLoopDelay({ resolution: 10 });
    this.loopDelay.enable();
    const ticker = setInterval(() => this.result.tick(), 500);
    this.timers.add(ticker);
    if (options.run !== undefined) {
      const every = setInterval(() => {
        for (const [id, vuser] of this.vusers) if (vuser.startCalled) kesh.runFunctionFromScript(id, options.run, options.param);
      }, options.everyMs);
      this.timers.add(every);
    }
  }

  async startService() {
    const { options } = this;
    let service = options.service;
    if (service === null) {
      const log = options.serviceLog ? (text, kind) => this.onLine(kind === 'problem' ? 'Warning' : 'trace', `pelmare - ${text}`) : false;
      this.embedded = await require('../tools/pelmare').start({ host: '127.0.0.1', port: 0, log });
      service = { host: this.embedded.host, port: this.embedded.port, embedded: true };
    } else {
      await probe(service);
      service = { ...service, embedded: false };
    }
    this.result = new RunResult({
      runId: options.runId, shard: options.shard, vuserIds: { first: options.firstId, count: this.ids.length },
      script: options.script, scriptSha256: options.scriptSha256, service, rampSeconds: options.rampSeconds,
    });
  }

  later(ms, fn) {
    const timer = setTimeout(() => {
      this.timers.delete(timer);
      fn();
    }, ms);
    this.timers.add(timer);
  }

  startOne(id) {
    const vuser = this.vusers.get(id);
    const { vusers } = this.result;
    vuser.startCalled = true;
    const settled = () => {
      this.unsettled -= 1;
      // The run time counts from the moment every Vuser is up.
      if (this.unsettled === 0 && !this.stopPromise) this.allSettled();
    };
    this.kesh.startKeshThread(id).then(() => {
      vuser.started = true;
      vusers.started += 1;
      if (vuser.ended) vusers.endedEarly += 1;
      settled();
    }, () => {
      vusers.failedToStart += 1;
      // The add-on gives an error the script threw only as a trace line: say where to see it.
      if (!this.toldWhereWhy && levelRank(this.options.addonLogLevel) < 3) {
        this.toldWhereWhy = true;
        this.onLine('Error', `kesh-run - Vuser ${id} failed to start; --log-level trace shows the error its script threw`);
      }
      settled();
    });
  }

  onLog(line, level) {
    const report = requestReport.parse(line);
    if (report !== null) {
      // A request that our own stop cut off (a blocking request ends with "Thread aborted") is
      // no error of the service's, and not a request of the window: it is left out.
      if (!(this.stoppingVusers && report.error !== null)) this.result.record(report.kind, report.ms, report.error);
      return;
    }
    const ended = kEndedPattern.exec(line);
    const vuser = ended && this.vusers.get(Number(ended[1]));
    if (vuser && !vuser.ended) {
      vuser.ended = true;
      if (vuser.started) this.result.vusers.endedEarly += 1;
    }
    const repeated = kRepeatedStopPattern.exec(line);
    if (repeated && this.vusers.get(Number(repeated[1]))?.ended) return;
    if (kLevelEchoPattern.test(line)) return;
    this.onLine(level, line);
  }

  // Stops every Vuser, then the add-on and the embedded service; the promise of the result. Safe to
  // call at any time and more than once.
  stop({ interrupted = false } = {}) {
    if (this.stopPromise) return this.stopPromise;
    this.interrupted = interrupted;
    this.leaving.abort();
    this.onStopping();
    this.stopPromise = this.shutdown().then((result) => {
      this.finish(result);
      return result;
    });
    return this.stopPromise;
  }

  // The runner's own load over the window. A loop that lagged, or CPU time near all the cores,
  // means latencies were measured by a runner that could not keep up.
  noteLoad(result) {
    const cpu = process.cpuUsage(this.cpuAtStart);
    result.cpu = { userMs: cpu.user / 1000, systemMs: cpu.system / 1000 };
    this.loopDelay.disable();
    const delay = { p99: this.loopDelay.percentile(99) / 1e6, max: this.loopDelay.max / 1e6 };
    result.loopDelayMs = delay;
    const windowMs = Math.max(1, (result.window.end ?? Date.now()) - result.window.T);
    const cpuShare = (result.cpu.userMs + result.cpu.systemMs) / (windowMs * os.availableParallelism());
    result.saturated = delay.p99 > 100 || cpuShare > 0.9;
  }

  async shutdown() {
    await this.serviceReady?.catch(() => {});
    for (const timer of this.timers) {
      clearTimeout(timer);
      clearInterval(timer);
    }
    this.timers.clear();
    const { kesh, result } = this;
    if (result) {
      result.interrupted = this.interrupted;
      result.end();
    }
    if (kesh) {
      this.stoppingVusers = true;
      for (const [id, vuser] of this.vusers) {
        if (!vuser.startCalled) continue;
        try {
          kesh.stopKeshThread(id);
        } catch (err) {
          this.onLine('Error', `kesh-run - stopping Vuser ${id}: ${err.message}`);
        }
      }
      if (this.cpuAtStart) this.noteLoad(result);
      // Lines logged while stopping reach the callback on the next turn. The add-on's own lines
      // after its close go straight to standard output, unfiltered: none below info then.
      await nextTurn();
      if (levelRank(this.options.addonLogLevel) > 2) kesh.setLogLevel('info');
      kesh.destroyKeshThreads();
      // The logger's own last line comes in the loop's close phase, one turn on.
      await nextTurn();
      await nextTurn();
    }
    if (this.embedded) await this.embedded.close();
    return result;
  }
}

// Whether a finished run passes, and why not.
function judge(result, { maxErrorsPercent = 0 } = {}) {
  const problems = [];
  const { vusers } = result;
  if (result.interrupted) problems.push('interrupted');
  if (vusers.failedToStart) problems.push(`${vusers.failedToStart} of ${vusers.planned} Vusers failed to start`);
  if (vusers.endedEarly) problems.push(`${vusers.endedEarly} Vusers ended early`);
  const percent = result.errorRate * 100;
  if (percent > maxErrorsPercent) problems.push(`error rate ${percent.toFixed(2)}% above --max-errors ${maxErrorsPercent}%`);
  return { passed: problems.length === 0, problems };
}

module.exports = { LoadRun, judge, levelNames, levelRank, resolveService, defaultScript: path.join(__dirname, '..', 'examples', 'load.js') };
