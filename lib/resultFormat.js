'use strict';
// The result of a run, a shard or a merge, as docs/result-format.md describes it: reading,
// checking, merging, and the figures a person reads. Latencies live only in HDR histograms, so
// shards add up exactly and percentiles are never averaged.
const hdr = require('hdr-histogram-js');

const kFormat = 'kesh-result/1';
const kDigits = 3;
const kFormatPattern = /^kesh-result\/(\d+)$/;

// Microseconds, 3 significant digits, growing with the largest value seen.
function newHistogram() {
  return hdr.build({
    bitBucketSize: 32, autoResize: true, lowestDiscernibleValue: 1, highestTrackableValue: 2,
    numberOfSignificantValueDigits: kDigits, useWebAssembly: false,
  });
}

function encodeHistogram(histogram) {
  return histogram.encodeIntoCompressedBase64();
}

// Adding a histogram of another precision would quietly change every percentile: refused.
function decodeHistogram(text, name = 'histogram') {
  let histogram;
  try {
    histogram = hdr.decodeFromCompressedBase64(String(text), 32, false);
  } catch (err) {
    throw new Error(`${name}: not a compressed HDR histogram (${err.message})`);
  }
  if (histogram.numberOfSignificantValueDigits !== kDigits) {
    throw new Error(`${name}: a histogram of ${histogram.numberOfSignificantValueDigits} significant digits, not ${kDigits}`);
  }
  return histogram;
}

function addHistograms(texts, name) {
  const sum = newHistogram();
  for (const text of texts) sum.add(decodeHistogram(text, name));
  return encodeHistogram(sum);
}

const usToMs = (us) => us / 1000;

// Latency figures in ms from a histogram; null when it holds nothing.
function latencyFigures(histogram, percentiles = [50, 90, 99]) {
  const figures = {};
  const empty = histogram.totalCount === 0;
  for (const p of percentiles) figures[`p${p}`] = empty ? null : usToMs(histogram.getValueAtPercentile(p));
  figures.max = empty ? null : usToMs(histogram.maxValue);
  return figures;
}

// What the printed summary, the merge and the report show, recomputed from the data.
function summarize(result) {
  const { requests, errors } = result.counts;
  const seconds = (result.window.end - result.window.T) / 1000;
  return {
    requests,
    errors,
    errorRate: requests > 0 ? errors / requests : 0,
    requestsPerSecond: seconds > 0 ? requests / seconds : 0,
    latencyMs: latencyFigures(decodeHistogram(result.latency.hdr, 'latency')),
  };
}

// A result from its JSON text or parsed object; `name` (a file name) goes into every error.
function readResult(input, name = 'result') {
  let result = input;
  if (typeof input === 'string' || Buffer.isBuffer(input)) {
    try {
      result = JSON.parse(input);
    } catch (err) {
      throw new Error(`${name}: not JSON (${err.message})`);
    }
  }
  if (result === null || typeof result !== 'object' || typeof result.format !== 'string') {
    throw new Error(`${name}: not a kesh-run result (no "format")`);
  }
  const version = kFormatPattern.exec(result.format);
  if (!version) throw new Error(`${name}: not a kesh-run result (format ${JSON.stringify(result.format)})`);
  if (result.format !== kFormat) {
    throw new Error(`${name}: format ${result.format} is newer than this kesh-run, which reads ${kFormat}`);
  }
  for (const field of ['shard', 'window', 'counts', 'latency', 'series']) {
    if (result[field] === null || typeof result[field] !== 'object') throw new Error(`${name}: "${field}" is missing`);
  }
  decodeHistogram(result.latency.hdr, `${name}: latency`);
  return result;
}

// Thresholds: a figure, a comparison and a bound, e.g. "p99<250ms", "p99.9<=1s", "errors<1%",
// "rps>=100", "max<2s". Percentiles come from the histogram, so any one can be asked for.
const kThreshold = /^\s*(p\d+(?:\.\d+)?|max|errors|rps)\s*(<=|>=|<|>)\s*(\d+(?:\.\d+)?)\s*(ms|s|us|%)?\s*$/;

function parseThreshold(expr) {
  const match = kThreshold.exec(expr);
  if (!match) throw new Error(`threshold ${JSON.stringify(expr)}: expected e.g. p99<250ms, errors<1% or rps>=100`);
  const [, figure, op, number, unit] = match;
  const latency = figure === 'max' || figure.startsWith('p');
  if (latency ? unit === '%' : figure === 'errors' ? unit !== '%' : unit !== undefined) {
    throw new Error(`threshold ${JSON.stringify(expr)}: ${latency ? 'a latency takes ms, s or us' : figure === 'errors' ? 'errors take a percentage' : 'rps takes no unit'}`);
  }
  const scale = { ms: 1, s: 1000, us: 0.001 }[unit] ?? 1;
  return { expr: expr.trim(), figure, op, bound: Number(number) * scale };
}

const kCompare = { '<': (a, b) => a < b, '<=': (a, b) => a <= b, '>': (a, b) => a > b, '>=': (a, b) => a >= b };

// [{ expr, value, passed }]: value in ms for latencies, in percent for errors. A latency of a
// run without requests fails: there is nothing that meets the bound.
function checkThresholds(result, exprs) {
  const histogram = decodeHistogram(result.latency.hdr, 'latency');
  const summary = summarize(result);
  return exprs.map((expr) => {
    const { figure, op, bound } = parseThreshold(expr);
    let value;
    if (figure === 'errors') value = summary.errorRate * 100;
    else if (figure === 'rps') value = summary.requestsPerSecond;
    else value = latencyFigures(histogram, figure === 'max' ? [] : [Number(figure.slice(1))])[figure];
    return { expr: expr.trim(), value, passed: value !== null && kCompare[op](value, bound) };
  });
}

class MergeError extends Error {
  constructor(problems) {
    super(problems.join('\n'));
    this.problems = problems;
  }
}

const sumOf = (values) => values.reduce((a, b) => a + b, 0);

function sumFields(objects) {
  const out = {};
  for (const object of objects) {
    for (const [key, value] of Object.entries(object || {})) {
      if (typeof value === 'number') out[key] = (out[key] || 0) + value;
    }
  }
  return out;
}

// Checks that `results` are the shards of one run, each once, and adds them up. `names` (file
// names) go into the messages. Missing shards are an error unless `allowPartial`; then the merge
// lists them in `missingShards` and `problems`, and does not pass.
function mergeResults(results, { allowPartial = false, names = [] } = {}) {
  if (results.length === 0) throw new MergeError(['nothing to merge']);
  const label = (i) => `shard ${results[i].shard.index} (${names[i] || `result ${i + 1}`})`;
  const first = results[0];
  const count = first.shard.count;
  const problems = [];
  const byIndex = new Map();
  results.forEach((result, i) => {
    const { index } = result.shard;
    if (index === null) problems.push(`${names[i] || `result ${i + 1}`} is already a merged result`);
    else if (result.runId !== first.runId) problems.push(`${label(i)} belongs to run ${JSON.stringify(result.runId)}, not ${JSON.stringify(first.runId)}`);
    else if (result.shard.count !== count) problems.push(`${label(i)} is one of ${result.shard.count} shards, not of ${count}`);
    else if (result.scriptSha256 !== first.scriptSha256) problems.push(`${label(i)} ran another script (sha256 ${result.scriptSha256}, not ${first.scriptSha256})`);
    else if (!Number.isInteger(index) || index < 0 || index >= count) problems.push(`${label(i)} is outside 0..${count - 1}`);
    else if (byIndex.has(index)) problems.push(`shard ${index} appears twice: ${names[byIndex.get(index)] || 'once'} and ${names[i] || 'again'}`);
    else byIndex.set(index, i);
  });
  if (problems.length > 0) throw new MergeError(problems);
  const missingShards = [];
  for (let index = 0; index < count; index++) if (!byIndex.has(index)) missingShards.push(index);
  if (missingShards.length > 0 && !allowPartial) {
    throw new MergeError(missingShards.map((index) => `shard ${index} of ${count} is missing`));
  }

  const shards = [...byIndex.keys()].sort((a, b) => a - b).map((index) => results[byIndex.get(index)]);
  const T = Math.min(...shards.map((s) => s.window.T));
  const end = Math.max(...shards.map((s) => s.window.end));
  const released = shards.map((s) => s.window.releasedAt);
  const firstRequests = shards.map((s) => s.window.firstRequestAt).filter((t) => typeof t === 'number');

  // Seconds are counted from each shard's own T; shards of one barrier share it, but a shard
  // released apart is placed by its own clock.
  const seriesLength = Math.max(0, ...shards.map((s) => s.series.length + Math.round((s.window.T - T) / 1000)));
  const series = Array.from({ length: seriesLength }, (_, t) => {
    const parts = [];
    for (const s of shards) {
      const entry = s.series[t - Math.round((s.window.T - T) / 1000)];
      if (entry) parts.push(entry);
    }
    return {
      t,
      requests: sumOf(parts.map((p) => p.requests)),
      errors: sumOf(parts.map((p) => p.errors)),
      vusersRunning: sumOf(parts.map((p) => p.vusersRunning)),
      hdr: addHistograms(parts.map((p) => p.hdr), `second ${t}`),
    };
  });

  const kindNames = [...new Set(shards.flatMap((s) => Object.keys(s.kinds || {})))].sort();
  const kinds = Object.fromEntries(kindNames.map((kind) => {
    const parts = shards.map((s) => s.kinds?.[kind]).filter(Boolean);
    return [kind, {
      requests: sumOf(parts.map((p) => p.requests)),
      errors: sumOf(parts.map((p) => p.errors)),
      latency: { unit: 'us', hdr: addHistograms(parts.map((p) => p.latency.hdr), `kind ${kind}`) },
    }];
  }));

  const shardProblems = shards.flatMap((s) => (s.problems || []).map((p) => `shard ${s.shard.index}: ${p}`));
  const merged = {
    format: kFormat,
    runId: first.runId,
    shard: { index: null, count },
    vuserIds: { first: Math.min(...shards.map((s) => s.vuserIds.first)), count: sumOf(shards.map((s) => s.vuserIds.count)) },
    vusers: sumFields(shards.map((s) => s.vusers)),
    script: first.script,
    scriptSha256: first.scriptSha256,
    service: first.service,
    runner: first.runner,
    window: { T, releasedAt: Math.min(...released), firstRequestAt: firstRequests.length ? Math.min(...firstRequests) : null, end },
    seconds: (end - T) / 1000,
    interrupted: shards.some((s) => s.interrupted),
    counts: sumFields(shards.map((s) => s.counts)),
    errorsByKind: sumFields(shards.map((s) => s.errorsByKind)),
    kinds,
    latency: { unit: 'us', hdr: addHistograms(shards.map((s) => s.latency.hdr), 'latency') },
    series,
    cpu: sumFields(shards.map((s) => s.cpu)),
    saturated: shards.some((s) => s.saturated),
    shards: shards.map((s) => ({
      index: s.shard.index,
      requests: s.counts.requests,
      errors: s.counts.errors,
      p99Ms: latencyFigures(decodeHistogram(s.latency.hdr)).p99,
      releasedAt: s.window.releasedAt,
      saturated: Boolean(s.saturated),
    })),
    missingShards,
    releaseSkewMs: Math.max(...released) - Math.min(...released),
    thresholds: [],
    passed: missingShards.length === 0 && shards.every((s) => s.passed !== false),
    problems: [...missingShards.map((index) => `shard ${index} of ${count} is missing`), ...shardProblems],
  };
  merged.summary = summarize(merged);
  return merged;
}

module.exports = {
  kFormat, kDigits, newHistogram, encodeHistogram, decodeHistogram, latencyFigures, summarize, readResult,
  mergeResults, MergeError, parseThreshold, checkThresholds,
};
