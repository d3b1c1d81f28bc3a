'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { RunResult } = require('../lib/results');
const format = require('../lib/resultFormat');
const requestReport = require('../lib/requestReport');
const hdr = require('hdr-histogram-js');

const kT = Date.now();
let seed = 7;
const random = () => ((seed = (seed * 48271) % 2147483647) / 2147483647);

// The result a shard of `count` writes after measuring `latencies` (ms), as the runner makes it.
function shardResult(index, count, latencies, { runId = 'run-a', sha = 'abc' } = {}) {
  const result = new RunResult({ runId, shard: { index, count }, vuserIds: { first: 1 + index * 3, count: 3 },
    script: 's.js', scriptSha256: sha, service: null });
  result.release(kT, kT + index);
  for (const ms of latencies) result.record(ms > 100 ? 'slow' : 'fast', ms, null);
  result.end();
  return JSON.parse(JSON.stringify(result.toJSON()));
}
const latencyOf = (result) => format.decodeHistogram(result.latency.hdr);
// Each percentile of `latency` within 0.1% of the exact one over `values` (ms), by the histogram's rank rule.
function assertPrecise(latency, values, percentiles, what) {
  const sorted = values.map((ms) => Math.round(ms * 1000)).sort((a, b) => a - b);
  for (const p of percentiles) {
    const [got, want] = [latency.getValueAtPercentile(p), sorted[Math.max(1, Math.round((p / 100) * sorted.length)) - 1]];
    assert.ok(Math.abs(got - want) <= want * 0.001, `${what} p${p}: ${got} vs ${want}`);
  }
}

test('merge: shards add up to the whole run, in any order, its percentiles within 0.1% of the exact ones', () => {
  const values = Array.from({ length: 20000 }, () => 0.001 * Math.exp(random() * 18)); // microseconds to minutes
  const whole = latencyOf(shardResult(0, 1, values));
  for (const reversed of [false, true]) {
    const parts = [[], [], []];
    for (const v of values) parts[Math.floor(random() * 3)].push(v);
    const shards = parts.map((part, i) => shardResult(i, 3, part));
    const merged = format.mergeResults(reversed ? shards.reverse() : shards);
    const latency = latencyOf(merged);
    for (const p of [0.1, 1, 25, 50, 90, 99, 99.9, 99.99, 100]) {
      assert.strictEqual(latency.getValueAtPercentile(p), whole.getValueAtPercentile(p), `p${p}, reversed ${reversed}`);
    }
    assertPrecise(latency, values, [25, 50, 90, 99, 99.9, 99.99, 100], `reversed ${reversed}`);
    assert.deepStrictEqual([merged.counts.requests, merged.kinds.fast.requests + merged.kinds.slow.requests, latency.totalCount,
      merged.shards.map((s) => s.index), merged.releaseSkewMs], [values.length, values.length, values.length, [0, 1, 2], 2]);
  }
  // Two shards of fast answers and one with a slow tail, where averaging the shards' p99 is far off.
  const bimodal = [9000, 9000, 2000].map((n, i) => Array.from({ length: n }, () => (i === 2 && random() < 0.1 ? 400 + random() * 200 : 1 + random() * 4)));
  assertPrecise(latencyOf(format.mergeResults(bimodal.map((part, i) => shardResult(i, 3, part)))), bimodal.flat(), [50, 90, 99, 99.9], 'bimodal');
});

test('merge and read: each way of not being one whole run has its own message', () => {
  const shards = [0, 1, 2].map((i) => shardResult(i, 3, [1, 2, 3]));
  const coarse = hdr.build({ numberOfSignificantValueDigits: 2 }); // another precision would shift every percentile
  coarse.recordValue(1234);
  const middle = (other) => [shards[0], other, shards[2]];
  for (const [results, message, options] of [
    [middle(shardResult(1, 3, [1], { runId: 'run-b' })), /^shard 1 \(result 2\) belongs to run "run-b", not "run-a"$/],
    [middle(shardResult(1, 2, [1])), /^shard 1 \(result 2\) is one of 2 shards, not of 3$/],
    [middle(shardResult(1, 3, [1], { sha: 'def' })), /^shard 1 \(result 2\) ran another script/],
    [middle({ ...shards[1], shard: { index: 5, count: 3 } }), /^shard 5 \(result 2\) is outside 0\.\.2$/],
    [middle({ ...shards[1], latency: { unit: 'us', hdr: coarse.encodeIntoCompressedBase64() } }), /2 significant digits, not 3/],
    [[shards[0], shards[1], shards[1]], /^shard 1 appears twice: b.json and c.json$/, { names: ['a.json', 'b.json', 'c.json'] }],
    [[shards[0], shards[2]], /^shard 1 of 3 is missing$/],
    [[format.mergeResults(shards)], /is already a merged result/],
  ]) assert.throws(() => format.mergeResults(results, options), { message });
  const partial = format.mergeResults([shards[2], shards[0]], { allowPartial: true });
  assert.deepStrictEqual([partial.missingShards, partial.passed, partial.counts.requests], [[1], false, 6]);

  const checks = format.checkThresholds(format.mergeResults(shards), ['p99<3.1ms', 'p50 < 1ms', 'errors<1%', 'max<=2s']);
  assert.deepStrictEqual(checks.map((c) => c.passed), [true, false, true, true]);
  assert.throws(() => format.parseThreshold('p99<1%'), /a latency takes ms, s or us/);
  assert.throws(() => format.parseThreshold('latency is low'), /expected e.g./);
});

test('request reports: what a Vuser writes the runner reads, and nothing else', () => {
  const parse = (text) => requestReport.parse(`(1234) ${text}`);
  assert.deepStrictEqual(parse(requestReport.format('browse', 1.23456)), { kind: 'browse', ms: 1.235, error: null });
  assert.deepStrictEqual(parse(requestReport.format('x'.repeat(100), -3, 'check')), { kind: 'x'.repeat(64), ms: 0, error: 'check' });
  for (const text of ['', ' [1,2]', ' ["a"]', ' ["a",1,2]', ' ["a",1,"b",4]', ' {"kind":"a"}']) assert.strictEqual(parse(`kesh:request${text}`), null, text);
  assert.strictEqual(parse('Vuser says kesh:request is late'), null);

  const result = new RunResult({ script: 's.js', service: null, vuserIds: { first: 1, count: 1 } });
  result.record('before the window', 1, null);
  result.release(Date.now());
  // A script that puts ids in its kinds cannot make the result grow with the run.
  for (let i = 0; i < 250; i++) result.record(`kind${i}`, 1, i % 2 ? `error${i}` : null);
  assert.deepStrictEqual([result.kinds.size, result.kinds.get('(other kinds)').requests, result.errors,
    result.errorsByKind.size, result.errorsByKind.get('(other kinds)')], [101, 150, 125, 101, 25]);
});
