'use strict';
// The figures of one load run, in one object that the runner prints, writes as JSON, and that
// later runs (shards) can merge. Latencies are counted in histograms of fixed size, so a long run
// costs no more memory than a short one.

const kFormat = 'ostrale-kesh/run-result';
const kVersion = 1;

// Microseconds below kExact are counted one by one; above, each power of two is cut into kSub
// buckets, so a bucket's middle is within 1/128 (0.8%) of any value in it. Values from 2^32 us
// (71 minutes) up are counted as 2^32 - 1.
const kExact = 128;
const kSubBits = 6;
const kSub = 1 << kSubBits;
const kFirstPower = 7; // log2(kExact)
const kBuckets = kExact + (32 - kFirstPower) * kSub;
const kMaxMicros = 2 ** 32 - 1;

function bucketOf(us) {
  if (us < kExact) return us;
  const power = 31 - Math.clz32(us);
  return kExact + (power - kFirstPower) * kSub + ((us >>> (power - kSubBits)) - kSub);
}

// The middle of a bucket, in microseconds.
function middleOf(bucket) {
  if (bucket < kExact) return bucket;
  const power = kFirstPower + ((bucket - kExact) >> kSubBits);
  const width = 2 ** (power - kSubBits);
  const low = (kSub + ((bucket - kExact) & (kSub - 1))) * width;
  return low + (width - 1) / 2;
}

class LatencyHistogram {
  constructor() {
    this.counts = new Float64Array(kBuckets);
    this.count = 0;
    this.sumMs = 0;
    this.minMs = Infinity;
    this.maxMs = 0;
  }

  record(ms) {
    const value = ms > 0 ? ms : 0;
    this.counts[bucketOf(Math.min(kMaxMicros, Math.round(value * 1000)))] += 1;
    this.count += 1;
    this.sumMs += value;
    if (value < this.minMs) this.minMs = value;
    if (value > this.maxMs) this.maxMs = value;
  }

  // The latency below which p percent of the values lie, in ms (null when empty). Exact minimum
  // and maximum bound the bucket's middle, so p100 is the true maximum.
  percentile(p) {
    if (this.count === 0) return null;
    const rank = Math.max(1, Math.ceil((p / 100) * this.count));
    let seen = 0;
    for (let bucket = 0; bucket < kBuckets; bucket++) {
      seen += this.counts[bucket];
      if (seen >= rank) return Math.min(this.maxMs, Math.max(this.minMs, middleOf(bucket) / 1000));
    }
    return this.maxMs;
  }

  merge(other) {
    for (let bucket = 0; bucket < kBuckets; bucket++) this.counts[bucket] += other.counts[bucket];
    this.count += other.count;
    this.sumMs += other.sumMs;
    this.minMs = Math.min(this.minMs, other.minMs);
    this.maxMs = Math.max(this.maxMs, other.maxMs);
    return this;
  }

  summary() {
    const empty = this.count === 0;
    return {
      p50: this.percentile(50),
      p90: this.percentile(90),
      p99: this.percentile(99),
      max: empty ? null : this.maxMs,
      min: empty ? null : this.minMs,
      mean: empty ? null : this.sumMs / this.count,
    };
  }

  // Sparse: [bucket, count] pairs of the buckets that are not empty.
  toJSON() {
    const buckets = [];
    for (let bucket = 0; bucket < kBuckets; bucket++) {
      if (this.counts[bucket] > 0) buckets.push([bucket, this.counts[bucket]]);
    }
    return {
      unit: 'us', exactBelow: kExact, bucketsPerPowerOfTwo: kSub,
      count: this.count, sumMs: this.sumMs, minMs: this.count ? this.minMs : null, maxMs: this.maxMs, buckets,
    };
  }

  static fromJSON(json) {
    if (json.unit !== 'us' || json.exactBelow !== kExact || json.bucketsPerPowerOfTwo !== kSub) {
      throw new Error('histogram of another layout');
    }
    const histogram = new LatencyHistogram();
    for (const [bucket, count] of json.buckets) histogram.counts[bucket] = count;
    histogram.count = json.count;
    histogram.sumMs = json.sumMs;
    histogram.minMs = json.minMs === null ? Infinity : json.minMs;
    histogram.maxMs = json.maxMs;
    return histogram;
  }
}

// Kinds beyond this many are counted together, so a script that puts ids in its kinds cannot
// make the result grow with the run.
const kMaxKinds = 100;
const kOtherKind = '(other kinds)';

class RunResult {
  constructor({ script, service, vusers, rampSeconds = 0 }) {
    this.script = script;
    this.service = service; // { host, port, embedded }
    this.rampSeconds = rampSeconds;
    this.vusers = { planned: vusers, started: 0, failedToStart: 0, endedEarly: 0 };
    this.requests = 0;
    this.errors = 0;
    this.errorsByKind = new Map();
    this.latency = new LatencyHistogram();
    this.kinds = new Map(); // request kind -> { requests, errors, latency }
    this.startedAt = null; // Date.now() at the first Vuser's start
    this.startedHr = null;
    this.stoppedHr = null;
    this.cpu = null; // { userMs, systemMs } of the run
    this.interrupted = false;
  }

  begin() {
    this.startedAt = Date.now();
    this.startedHr = process.hrtime.bigint();
  }

  end() {
    if (this.stoppedHr === null) this.stoppedHr = process.hrtime.bigint();
  }

  record(kind, ms, error) {
    let entry = this.kinds.get(kind);
    if (entry === undefined) {
      if (this.kinds.size >= kMaxKinds && kind !== kOtherKind) return this.record(kOtherKind, ms, error);
      entry = { requests: 0, errors: 0, latency: new LatencyHistogram() };
      this.kinds.set(kind, entry);
    }
    this.requests += 1;
    entry.requests += 1;
    this.latency.record(ms);
    entry.latency.record(ms);
    if (error !== null && error !== undefined) {
      this.errors += 1;
      entry.errors += 1;
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

  // Seconds from the first start to the stop (or to now, while running).
  get seconds() {
    if (this.startedHr === null) return 0;
    const until = this.stoppedHr === null ? process.hrtime.bigint() : this.stoppedHr;
    return Number(until - this.startedHr) / 1e9;
  }

  get requestsPerSecond() {
    const seconds = this.seconds;
    return seconds > 0 ? this.requests / seconds : 0;
  }

  get errorRate() {
    return this.requests > 0 ? this.errors / this.requests : 0;
  }

  get cpuPerRequestMs() {
    if (this.cpu === null || this.requests === 0) return null;
    return (this.cpu.userMs + this.cpu.systemMs) / this.requests;
  }

  toJSON() {
    const sortedKinds = [...this.kinds.keys()].sort();
    return {
      format: kFormat,
      version: kVersion,
      script: this.script,
      service: this.service,
      startedAt: this.startedAt === null ? null : new Date(this.startedAt).toISOString(),
      seconds: this.seconds,
      rampSeconds: this.rampSeconds,
      interrupted: this.interrupted,
      vusers: { ...this.vusers, failed: this.failedVusers },
      requests: this.requests,
      requestsPerSecond: this.requestsPerSecond,
      errors: { total: this.errors, rate: this.errorRate, byKind: Object.fromEntries([...this.errorsByKind].sort()) },
      latencyMs: this.latency.summary(),
      cpu: this.cpu === null ? null : { ...this.cpu, perRequestMs: this.cpuPerRequestMs },
      kinds: Object.fromEntries(sortedKinds.map((kind) => {
        const entry = this.kinds.get(kind);
        return [kind, { requests: entry.requests, errors: entry.errors, latencyMs: entry.latency.summary() }];
      })),
      histograms: {
        all: this.latency.toJSON(),
        kinds: Object.fromEntries(sortedKinds.map((kind) => [kind, this.kinds.get(kind).latency.toJSON()])),
      },
    };
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
  const latency = result.latency.count
    ? `p50 ${ms(result.latency.percentile(50))} ms, p99 ${ms(result.latency.percentile(99))} ms`
    : 'no latency yet';
  return `${result.seconds.toFixed(1).padStart(5)} s  Vusers ${vusers.started}/${vusers.planned} started, ` +
    `${result.runningVusers} running, ${result.failedVusers} failed | ${result.requests} requests, ` +
    `${result.errors} errors, ${rate(result.requestsPerSecond)}/s | ${latency}`;
}

function summaryText(result, verdict) {
  const { vusers } = result;
  const all = result.latency.summary();
  const service = result.service;
  const where = service ? `${service.host}:${service.port}${service.embedded ? ' (embedded stand-in)' : ''}` : '-';
  const errorKinds = [...result.errorsByKind].sort().map(([kind, n]) => `${kind} ${n}`).join(', ');
  const cpu = result.cpuPerRequestMs;
  const lines = [
    `kesh-run: summary${result.interrupted ? ' (interrupted)' : ''}`,
    `  script     ${result.script} against ${where}`,
    `  time       ${result.seconds.toFixed(1)} s${result.rampSeconds ? `, ramp ${result.rampSeconds} s` : ''}`,
    `  Vusers     ${vusers.started} of ${vusers.planned} started, ${result.failedVusers} failed` +
      (vusers.endedEarly ? ` (${vusers.endedEarly} ended early)` : ''),
    `  requests   ${result.requests}, ${rate(result.requestsPerSecond)}/s`,
    `  errors     ${result.errors} (${(result.errorRate * 100).toFixed(2)}%)${errorKinds ? `: ${errorKinds}` : ''}`,
    `  latency    ${result.requests === 0 ? '-' : `p50 ${ms(all.p50)} ms, p90 ${ms(all.p90)} ms, p99 ${ms(all.p99)} ms, max ${ms(all.max)} ms`}`,
    `  CPU        ${cpu === null ? '-' : `${(cpu * 1000).toFixed(0)} µs`} per request ` +
      `(runner process, ${result.cpu ? ((result.cpu.userMs + result.cpu.systemMs) / 1000).toFixed(2) : '-'} s in all)`,
  ];
  if (result.kinds.size > 0) {
    const width = Math.max(8, ...[...result.kinds.keys()].map((k) => k.length));
    const row = (cells) => `    ${cells[0].padEnd(width)}${cells.slice(1).map((c) => c.padStart(9)).join('')}`;
    lines.push(row(['kind', 'requests', 'errors', 'p50 ms', 'p90 ms', 'p99 ms', 'max ms']));
    for (const kind of [...result.kinds.keys()].sort()) {
      const entry = result.kinds.get(kind);
      const s = entry.latency.summary();
      lines.push(row([kind, String(entry.requests), String(entry.errors), ms(s.p50), ms(s.p90), ms(s.p99), ms(s.max)]));
    }
  }
  if (verdict) lines.push(`  result     ${verdict}`);
  return lines.join('\n');
}

module.exports = { LatencyHistogram, RunResult, statusLine, summaryText, kFormat, kVersion };
