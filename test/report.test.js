'use strict';
// The HTML report: written by kesh-run, opened in a real browser with the network shut, its figures read back.
const test = require('node:test');
const assert = require('node:assert');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { scriptDir } = require('./helpers');
const { kFormat, newHistogram, encodeHistogram, summarize, latencyFigures, decodeHistogram, mergeResults } = require('../lib/resultFormat');
const { buildReport } = require('../lib/report');
const { findBrowser, launch, look } = require('./browser');

const root = path.join(__dirname, '..');
const dir = scriptDir({});
const file = (name) => path.join(dir, name);
const kesh = (args) => spawnSync(process.execPath, [path.join(root, 'bin', 'kesh-run.js'), ...args], { cwd: root, encoding: 'utf8', timeout: 60000 });
const writeJson = (name, value) => {
  fs.writeFileSync(file(name), typeof value === 'string' ? value : JSON.stringify(value));
  return file(name);
};
// The number a figure's text shows, e.g. "1,234" or "63.6 ms", and whether that is `value` as shown.
const shownNumber = (text) => Number(text.replace(/[^\d.]/g, ''));
const near = (shown, value) => Math.abs(shown - value) <= Math.abs(value) * 0.005 + 0.005;

// A shard's result as the runner writes it: a latency stall in the middle and a few errors; deterministic per `seed`.
function shardResult({ index = 0, count = 1, seconds = 12, seed = 1, runId = 'run-a', releasedAt = 0 }) {
  let state = seed;
  const random = () => ((state = (state * 1103515245 + 12345) % 2147483648) / 2147483648);
  const [T, all] = [1_767_000_000_000, newHistogram()];
  const series = Array.from({ length: seconds }, (_, t) => {
    const [second, requests, slow] = [newHistogram(), 80 + Math.floor(random() * 40), Math.abs(t - seconds / 2 - 1) < 2 ? 8 : 1];
    for (let i = 0, us; i < requests; i++) {
      us = Math.round((2000 + random() * 6000 + (random() < 0.02 ? 40000 : 0)) * slow);
      [second, all].forEach((histogram) => histogram.recordValue(us));
    }
    return { t, requests, errors: t % 4 === 3 ? 2 : 0, vusersRunning: 4, hdr: encodeHistogram(second) };
  });
  const sum = (key) => series.reduce((n, entry) => n + entry[key], 0);
  return {
    format: kFormat, runId, shard: { index, count }, vuserIds: { first: 1 + index * 4, count: 4 },
    vusers: { planned: 4, started: 4, failed: 0 }, script: 'examples/load.js', scriptSha256: 'ab'.repeat(32),
    runner: { version: '0.1.0', node: process.version }, window: { T, releasedAt: T - 2000 + releasedAt, end: T + seconds * 1000 },
    counts: { requests: sum('requests'), errors: sum('errors') }, errorsByKind: { check: sum('errors') },
    latency: { unit: 'us', hdr: encodeHistogram(all) }, series, passed: false, problems: [],
  };
}

test('report command: each bad input has its own message and exit code, and writes no page', () => {
  const shards = [0, 1, 2].map((index) => writeJson(`shard${index}.json`, shardResult({ index, count: 3, seed: index + 1 })));
  const brokenSecond = shardResult({});
  brokenSecond.series[2].hdr = 'zz';
  for (const [inputs, code, message, out = true] of [
    [[writeJson('text.json', 'load went fine')], 4, /text\.json: not JSON/],
    [[writeJson('other.json', { requests: 3 })], 4, /other\.json: not a kesh-run result/],
    [[writeJson('newer.json', { ...shardResult({}), format: 'kesh-result/2' })], 4, /newer\.json: format kesh-result\/2 is newer than this kesh-run/],
    [[shards[0], shards[1], writeJson('runb.json', shardResult({ index: 2, count: 3, runId: 'run-b' }))], 4,
      /shard 2 \(.*runb\.json\) belongs to run "run-b", not "run-a"/],
    [[writeJson('second.json', brokenSecond)], 4, /second 2: not a compressed HDR histogram/],
    [[shards[0], '--bogus'], 2, /Unknown option '--bogus'/],
    [[shards[0]], 2, /--out FILE is needed/, false],
  ]) {
    fs.rmSync(file('bad.html'), { force: true });
    const r = kesh(['report', ...inputs, ...(out ? ['--out', file('bad.html')] : [])]);
    assert.strictEqual(r.status, code, `${inputs}: ${r.stderr}`);
    assert.match(r.stderr, message);
    assert.ok(!fs.existsSync(file('bad.html')), `${inputs}: a page was written`);
  }
  // A partial merge still gets its page, with the missing shard in it, and still fails.
  const partial = kesh(['report', shards[0], shards[2], '--allow-partial', '--out', file('partial.html')]);
  assert.strictEqual(partial.status, 4, partial.stderr);
  assert.match(fs.readFileSync(file('partial.html'), 'utf8'), /<tr data-shard="1" class="missing">/);
});

test('the page is one file: nothing outside it is referred to, and result text cannot break out of it', () => {
  const hostile = '</script><script>alert(1)</script><img src="http://example.invalid/x.png">';
  const html = buildReport({ ...shardResult({ seconds: 3 }), script: hostile, errorsByKind: { [hostile]: 1 } });
  assert.doesNotMatch(html, /<[a-z][^>]*\b(src|href|action)\s*=|url\(|@import/i);
  assert.strictEqual(html.match(/<script\b/g).length, 3, 'the data, the chart library and the page script');
  assert.match(html, /Content-Security-Policy" content="default-src 'none'/);
});

// What the browser test reads off the page: its figures, its charts' canvases, its shard rows and release skew.
const kInPage = `(() => {
  const figure = (id) => ((el) => el && { value: el.dataset.value, text: el.querySelector('.value').textContent })(document.getElementById(id));
  const charts = [...document.querySelectorAll('[data-chart]')].map((el) => {
    const canvas = el.querySelector('canvas');
    if (!canvas) return { name: el.dataset.chart };
    const { data } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
    let colored = 0; // axes and grid are grey; only drawn series have colour
    for (let i = 0; i < data.length; i += 4) {
      if (data[i + 3] > 0 && Math.max(data[i], data[i + 1], data[i + 2]) - Math.min(data[i], data[i + 1], data[i + 2]) > 60) colored++;
    }
    return { name: el.dataset.chart, width: canvas.width, height: canvas.height, colored };
  });
  const shards = [...document.querySelectorAll('tr[data-shard]')].map((tr) => ({ index: Number(tr.dataset.shard),
    requests: tr.querySelector('[data-field=requests]')?.textContent, p99: tr.querySelector('[data-field=p99]')?.textContent }));
  return { requests: figure('fig-requests'), errors: figure('fig-errors'), p99: figure('fig-p99'), charts, shards,
    skew: document.getElementById('release-skew')?.dataset.value };
})()`;

test('the page in headless chromium, network shut', async (t) => {
  const binary = findBrowser();
  if (binary === null) {
    // CI installs the browser: there, its absence is a failure, not a reason to skip.
    assert.ok(!process.env.CI, 'chromium is not installed on CI');
    return t.skip('no chromium on PATH (apt-get install chromium; or KESH_CHROMIUM=/path): the page was not checked in a browser');
  }
  const browser = await launch(binary);
  let closed = false;
  t.after(async () => { if (!closed) await browser.close(); });
  // One run, then three shards handed over out of order: the page lists them by index.
  const shards = [0, 1, 2].map((index) => shardResult({ index, count: 3, seed: index + 7, releasedAt: index * 11 }));
  for (const [name, results, order] of [['single', [shardResult({})], [0]], ['merged', shards, [2, 0, 1]]]) {
    await t.test(name, async () => {
      const r = kesh(['report', ...order.map((i) => writeJson(`${name}${i}.json`, results[i])), '--out', file(`${name}.html`)]);
      assert.strictEqual(r.status, 0, r.stderr);
      const png = path.join(__dirname, 'artifacts', `report-${name}.png`);
      const { value: seen, problems, requests } = await look(browser, file(`${name}.html`), kInPage, png);
      assert.deepStrictEqual(requests, [], 'requests beside the page itself');
      assert.deepStrictEqual(problems, [], 'console errors');
      assert.deepStrictEqual(seen.charts.map((c) => c.name), ['requests', 'latency', 'errors', 'vusers', 'histogram']);
      for (const c of seen.charts) {
        assert.ok(c.width > 200 && c.height > 100 && c.colored > 300, `${c.name}: ${c.width}x${c.height}, ${c.colored} drawn pixels`);
      }
      const summary = summarize(results.length > 1 ? mergeResults(results) : results[0]);
      for (const [figure, value] of [['requests', summary.requests], ['errors', summary.errors], ['p99', summary.latencyMs.p99]]) {
        assert.strictEqual(Number(seen[figure].value), value, `${figure} behind the figure`);
        assert.ok(near(shownNumber(seen[figure].text), value), `${figure} shown as ${seen[figure].text}, the result has ${value}`);
      }
      assert.deepStrictEqual(seen.shards.map((row) => row.index), results.length > 1 ? [0, 1, 2] : []);
      if (results.length > 1) assert.strictEqual(Number(seen.skew), 22);
      seen.shards.forEach((row, index) => {
        const p99 = latencyFigures(decodeHistogram(shards[index].latency.hdr)).p99;
        assert.strictEqual(shownNumber(row.requests), shards[index].counts.requests);
        assert.ok(near(shownNumber(row.p99), p99), `shard ${index}: p99 ${row.p99}, the result has ${p99}`);
      });
    });
  }
  closed = true;
  assert.ok(await browser.close(), 'a chromium process outlived the close');
});
