'use strict';
// The figures of one load run, in one object that the runner prints, writes as JSON, and that
// later runs (shards) can merge. Latencies are counted in histograms of fixed size, so a long run
// costs no more memory than a short one.

const { kFormat, newHistogram, encodeHistogram, decodeHistogram, latencyFigures, summarize } = require('./resultFormat');

const toMicros = (ms) => Math.round(Math.max(0, ms) * 1000);

// Kinds beyond this many are counted together, so a script that puts ids in its kinds cannot
// make the result grow with the run.
const kMaxKinds = 100;
const kOtherKind = '(other kinds)';

class RunResult {
  // runId, shard { index, count }, vuserIds { first, count }, script, scriptSha256, service
  // { host, port, embedded }, rampSeconds.
  constructor({ runId, shard = { index: 0, count: 1 }, vuserIds, script, scriptSha256 = null, service, rampSeconds = 0 }) {
    Object.assign(this, { runId, shard, vuserIds, script, scriptSha256, service, rampSeconds });
    this.vusers = { planned: vuserIds.count, started: 0, failedToStart: 0, endedEarly: 0 };
    this.requests = 0;
    this.errors = 0;
    this.errorsByKind = new Map();
    this.latency = newHistogram();
    this.kinds = new Map(); // request kind -> { requests, errors, latency }
    this.series = []; // per second of the window: { requests, errors, vusersRunning, latency }
    this.window = { T: null, releasedAt: null, firstRequestAt: null, end: null };
    this.cpu = null; // { userMs, systemMs } over the window
    this.saturated = false;
    this.loopDelayMs = null;
    this.interrupted = false;
  }

  get measuring() {
    return this.window.T !== null;
  }

  // Requests count from here on; `T` is the window's start, `releasedAt` when this process got
  // there (later than T by its timer's lateness).
  release(T, releasedAt = Date.now()) {
    this.window.T = T;
    this.window.releasedAt = releasedAt;
  }

  // Requests still in flight at the end are counted, in the last second, when their reports
  // come in while the Vusers stop.
  end() {
    if (this.measuring && this.window.end === null) {
      this.window.end = Date.now();
      this.tick(this.window.end - 1);
    }
  }

  // The series entry of the second that holds `at`, with the ones before it.
  tick(at = Date.now()) {
    if (!this.measuring) return null;
    let t = Math.max(0, Math.floor((at - this.window.T) / 1000));
    if (this.window.end !== null) t = Math.min(t, Math.max(0, this.series.length - 1));
    while (this.series.length <= t) {
      this.series.push({ requests: 0, errors: 0, vusersRunning: this.runningVusers, latency: newHistogram() });
    }
    const entry = this.series[t];
    if (this.window.end === null) entry.vusersRunning = this.runningVusers;
    return entry;
  }

  record(kind, ms, error) {
    if (!this.measuring) return;
    let entry = this.kinds.get(kind);
    if (entry === undefined) {
      if (this.kinds.size >= kMaxKinds && kind !== kOtherKind) return this.record(kOtherKind, ms, error);
      entry = { requests: 0, errors: 0, latency: newHistogram() };
      this.kinds.set(kind, entry);
    }
    const now = Date.now();
    if (this.window.firstRequestAt === null) this.window.firstRequestAt = now;
    const second = this.tick(now);
    const us = toMicros(ms);
    this.requests += 1;
    entry.requests += 1;
    second.requests += 1;
    this.latency.recordValue(us);
    entry.latency.recordValue(us);
    second.latency.recordValue(us);
    if (error !== null && error !== undefined) {
      this.errors += 1;
      entry.errors += 1;
      second.errors += 1;
      const errorKind = this.errorsByKind.has(error) || this.errorsByKind.size < kMaxKinds ? error : kOtherKind;
      this.errorsByKind.set(errorKind, (this.errorsByKind.get(errorKind) || 0) + 1);
    }
  }

  get failedVusers() {
    return this.vusers.failedToStart + this.vusers.endedEarly;
  }

  get runningVusers() {
    return this.vusers.started - this.vusers.endedEarly;
  }

  // Seconds of the window so far.
  get seconds() {
    if (!this.measuring) return 0;
    return ((this.window.end ?? Date.now()) - this.window.T) / 1000;
  }

  get requestsPerSecond() {
    const seconds = this.seconds;
    return seconds > 0 ? this.requests / seconds : 0;
  }

  get errorRate() {
    return this.requests > 0 ? this.errors / this.requests : 0;
  }

  // The result as kesh-result/1; `passed` and `problems` come from the judge.
  toJSON({ passed = true, problems = [], runner = {} } = {}) {
    const hdrOf = (histogram) => ({ unit: 'us', hdr: encodeHistogram(histogram) });
    const T = this.window.T ?? Date.now();
    const window = { ...this.window, T, releasedAt: this.window.releasedAt ?? T, end: this.window.end ?? T };
    const result = {
      format: kFormat,
      runId: this.runId,
      shard: this.shard,
      vuserIds: this.vuserIds,
      vusers: { ...this.vusers, failed: this.failedVusers },
      script: this.script,
      scriptSha256: this.scriptSha256,
      service: this.service,
      runner: { version: require('../package.json').version, node: process.version, ...runner },
      window,
      seconds: (window.end - window.T) / 1000,
      rampSeconds: this.rampSeconds,
      interrupted: this.interrupted,
      counts: { requests: this.requests, errors: this.errors },
      errorsByKind: Object.fromEntries([...this.errorsByKind].sort()),
      kinds: Object.fromEntries([...this.kinds.keys()].sort().map((kind) => {
        const entry = this.kinds.get(kind);
        return [kind, { requests: entry.requests, errors: entry.errors, latency: hdrOf(entry.latency) }];
      })),
      latency: hdrOf(this.latency),
      series: this.series.map((entry, t) => ({
        t, requests: entry.requests, errors: entry.errors, vusersRunning: entry.vusersRunning, hdr: encodeHistogram(entry.latency),
      })),
      cpu: this.cpu,
      saturated: this.saturated,
      loopDelayMs: this.loopDelayMs,
      thresholds: [],
      passed,
      problems,
    };
    result.summary = summarize(result);
    return result;
  }
}

// Shown with three significant digits, the way a person reads latencies.
function ms(value) {
  if (value === null || value === undefined) return '-';
  if (value >= 100) return value.toFixed(0);
  if (value >= 10) return value.toFixed(1);
  return value.toFixed(2);
}

function rate(value) {
  return value >= 100 ? value.toFixed(0) : value.toFixed(1);
}

function statusLine(result) {
  const { vusers } = result;
  const { p50, p99 } = latencyFigures(result.latency, [50, 99]);
  const latency = p50 === null ? 'no latency yet' : `p50 ${ms(p50)} ms, p99 ${ms(p99)} ms`;
  return `${result.seconds.toFixed(1).padStart(5)} s  Vusers ${vusers.started}/${vusers.planned} started, ` +
    `${result.runningVusers} running, ${result.failedVusers} failed | ${result.requests} requests, ` +
    `${result.errors} errors, ${rate(result.requestsPerSecond)}/s | ${latency}`;
}

// The summary of a result object (kesh-result/1), of one run or of a merge: every figure comes
// from summarize(), so both print the same for the same data.
function summaryText(result, verdict, { title = 'summary' } = {}) {
  const { vusers } = result;
  const summary = summarize(result);
  const all = summary.latencyMs;
  const service = result.service;
  const where = service ? `${service.host}:${service.port}${service.embedded ? ' (embedded stand-in)' : ''}` : '-';
  const errorKinds = Object.entries(result.errorsByKind || {}).map(([kind, n]) => `${kind} ${n}`).join(', ');
  const cpu = result.cpu;
  const cpuPerRequest = cpu && summary.requests > 0 ? (cpu.userMs + cpu.systemMs) / summary.requests : null;
  const lines = [
    `kesh-run: ${title}${result.interrupted ? ' (interrupted)' : ''}`,
    `  script     ${result.script} against ${where}`,
    `  time       ${result.seconds.toFixed(1)} s${result.rampSeconds ? `, ramp ${result.rampSeconds} s` : ''}`,
    `  Vusers     ${vusers.started} of ${vusers.planned} started, ${vusers.failed} failed` +
      (vusers.endedEarly ? ` (${vusers.endedEarly} ended early)` : ''),
    `  requests   ${summary.requests}, ${rate(summary.requestsPerSecond)}/s`,
    `  errors     ${summary.errors} (${(summary.errorRate * 100).toFixed(2)}%)${errorKinds ? `: ${errorKinds}` : ''}`,
    `  latency    ${summary.requests === 0 ? '-' : `p50 ${ms(all.p50)} ms, p90 ${ms(all.p90)} ms, p99 ${ms(all.p99)} ms, max ${ms(all.max)} ms`}`,
    `  CPU        ${cpuPerRequest === null ? '-' : `${(cpuPerRequest * 1000).toFixed(0)} µs`} per request ` +
      `(runner process${result.shards ? 'es' : ''}, ${cpu ? ((cpu.userMs + cpu.systemMs) / 1000).toFixed(2) : '-'} s in all)`,
  ];
  if (result.shards) {
    lines.push(`  shards     ${result.shards.length} of ${result.shard.count}, released within ${result.releaseSkewMs} ms`);
    for (const shard of result.shards.filter((s) => s.saturated)) {
      lines.push(`  warning    shard ${shard.index}'s runner was saturated: its latencies are suspect`);
    }
  } else if (result.saturated) {
    lines.push('  warning    the runner was saturated: its latencies are suspect');
  }
  const kinds = Object.keys(result.kinds || {});
  if (kinds.length > 0) {
    const width = Math.max(8, ...kinds.map((k) => k.length));
    const row = (cells) => `    ${cells[0].padEnd(width)}${cells.slice(1).map((c) => c.padStart(9)).join('')}`;
    lines.push(row(['kind', 'requests', 'errors', 'p50 ms', 'p90 ms', 'p99 ms', 'max ms']));
    for (const kind of kinds) {
      const entry = result.kinds[kind];
      const s = latencyFigures(decodeHistogram(entry.latency.hdr));
      lines.push(row([kind, String(entry.requests), String(entry.errors), ms(s.p50), ms(s.p90), ms(s.p99), ms(s.max)]));
    }
  }
  for (const t of result.thresholds || []) {
    lines.push(`  threshold  ${t.expr}: ${t.value === null ? 'no value' : Number(t.value.toFixed(3))} ${t.passed ? 'passed' : 'FAILED'}`);
  }
  if (verdict) lines.push(`  result     ${verdict}`);
  return lines.join('\n');
}

module.exports = { RunResult, statusLine, summaryText, ms, rate };
