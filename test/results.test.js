'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { LatencyHistogram, RunResult } = require('../lib/results');
const requestReport = require('../lib/requestReport');

// Exact percentile by the same rank rule: the smallest value with at least p% at or below it.
function exact(sorted, p) {
  return sorted[Math.max(1, Math.ceil((p / 100) * sorted.length)) - 1];
}

test('latency histogram: percentiles within 1% of the exact ones, merge, JSON round trip', () => {
  let seed = 7;
  const random = () => ((seed = (seed * 48271) % 2147483647) / 2147483647);
  // From microseconds to minutes, heavy-tailed like real latencies.
  const values = Array.from({ length: 20000 }, () => 0.001 * Math.exp(random() * 18));
  const whole = new LatencyHistogram();
  const halves = [new LatencyHistogram(), new LatencyHistogram()];
  values.forEach((v, i) => {
    whole.record(v);
    halves[i % 2].record(v);
  });
  const sorted = [...values].sort((a, b) => a - b);
  for (const p of [1, 50, 90, 99, 99.9]) {
    const want = exact(sorted, p);
    const got = whole.percentile(p);
    // Values are counted in whole microseconds, below 128 us exactly.
    assert.ok(Math.abs(got - want) <= want * 0.008 + 0.0005, `p${p}: ${got} vs ${want}`);
  }
  assert.strictEqual(whole.percentile(100), sorted.at(-1));
  assert.strictEqual(whole.percentile(0.0001), sorted[0]);

  const merged = halves[0].merge(halves[1]).toJSON();
  assert.ok(Math.abs(merged.sumMs - whole.sumMs) < 1e-6 * whole.sumMs);
  assert.deepStrictEqual({ ...merged, sumMs: 0 }, { ...whole.toJSON(), sumMs: 0 });
  const back = LatencyHistogram.fromJSON(JSON.parse(JSON.stringify(whole)));
  assert.deepStrictEqual(back.summary(), whole.summary());

  const edges = new LatencyHistogram();
  for (const v of [-1, 0, 0.127, 0.128, 1e9]) edges.record(v);
  assert.deepStrictEqual([edges.count, edges.minMs, edges.maxMs, edges.percentile(40)], [5, 0, 1e9, 0]);
  assert.strictEqual(edges.percentile(60), 0.127);
  assert.strictEqual(new LatencyHistogram().percentile(50), null);
});

test('request reports: what a Vuser writes the runner reads, and nothing else', () => {
  const line = (text) => `(1234) ${text}`;
  assert.deepStrictEqual(requestReport.parse(line(requestReport.format('browse', 1.23456))),
    { kind: 'browse', ms: 1.235, error: null });
  assert.deepStrictEqual(requestReport.parse(line(requestReport.format('x'.repeat(100), -3, 'check'))),
    { kind: 'x'.repeat(64), ms: 0, error: 'check' });
  for (const text of ['kesh:request', 'kesh:request [1,2]', 'kesh:request ["a"]', 'kesh:request ["a",1,2]',
    'kesh:request ["a",1,"b",4]', 'kesh:request {"kind":"a"}', 'Vuser says kesh:request is late']) {
    assert.strictEqual(requestReport.parse(line(text)), null, text);
  }

  const result = new RunResult({ script: 's.js', service: null, vusers: 1 });
  // A script that puts ids in its kinds cannot make the result grow with the run.
  for (let i = 0; i < 250; i++) result.record(`kind${i}`, 1, i % 2 ? `error${i}` : null);
  assert.strictEqual(result.kinds.size, 101);
  assert.strictEqual(result.kinds.get('(other kinds)').requests, 150);
  assert.strictEqual(result.errors, 125);
  assert.strictEqual(result.errorsByKind.size, 101);
  assert.strictEqual(result.errorsByKind.get('(other kinds)'), 25);
});
