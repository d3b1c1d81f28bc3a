'use strict';
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const path = require('node:path');

// Runs a fixture and returns its JSON summary line with its standard output.
function fixture(name, timeout) {
  const r = spawnSync(process.execPath, [path.join(__dirname, 'fixtures', name)], { encoding: 'utf8', timeout });
  assert.strictEqual(r.status, 0, r.stderr);
  return { summary: JSON.parse(r.stdout.split('\n').find((l) => l.startsWith('{'))), stdout: r.stdout };
}

test('lines of many native threads all reach the callback, each thread in order', () => {
  const { summary, stdout } = fixture('logStress.js', 60000);
  assert.deepStrictEqual(summary, { received: 80000, outOfOrder: 0, malformed: 0, last: new Array(8).fill(10000) });
  // After close the logger writes to standard output again.
  assert.match(stdout, /\[Debug\]: KeshLogger - \(\d+\) Closed kesh logger async handle/);
});

test('a flood is delivered in slices and bounded: the loop runs on, drops are counted in Warning lines', () => {
  const { summary: s, stdout } = fixture('logFlood.js', 90000);
  assert.strictEqual(s.received + s.dropped, 1000000, stdout);
  assert.ok(s.dropped > 0 && s.warnings > 0, stdout);
  assert.strictEqual(s.backwards, 0);
  // One slice is a few milliseconds; a generous bound for a loaded machine.
  assert.ok(s.stall < 500, `the runner's loop stalled ${s.stall} ms`);
});
