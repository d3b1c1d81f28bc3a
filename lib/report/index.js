'use strict';
// The HTML report of a run: one file that a person opens anywhere, offline. Everything it needs
// is inside it: the chart library, the page's script and style, and the figures. Figures come
// from summarize() (what the printed summary shows); per-second percentiles from the per-second
// histograms the result carries.
const fs = require('node:fs');
const path = require('node:path');
const {
  summarize, decodeHistogram, latencyFigures, parseThreshold,
} = require('../resultFormat');
// Shown as the printed summary shows them.
const { ms, rate } = require('../results');

const uplotDist = path.join(path.dirname(require.resolve('uplot/package.json')), 'dist');
const readAsset = (file) => fs.readFileSync(file, 'utf8');

const escapeHtml = (value) => String(value).replace(/[&<>"']/g, (c) => `&#${c.charCodeAt(0)};`);
// Inline script text must not close its own element early.
const inlineScript = (text) => text.replace(/<\/(script)/gi, '<\\/$1');
const jsonForScript = (value) => JSON.stringify(value).replace(/</g, '\\u003c');

const count = (value) => (typeof value === 'number' ? value.toLocaleString('en-US') : '–');
const isoTime = (epochMs) => (typeof epochMs === 'number' ? new Date(epochMs).toISOString() : '–');

// The whole run's latencies in bins of equal width on a log scale, for a bar chart: a few
// dozen bars, whatever the spread.
function latencyBins(histogram, binsPerDecade = 20) {
  const values = [];
  histogram.recordedValuesIterator.reset();
  while (histogram.recordedValuesIterator.hasNext()) {
    const step = histogram.recordedValuesIterator.next();
    values.push([Math.max(1, step.valueIteratedTo), step.countAtValueIteratedTo]);
  }
  if (values.length === 0) return { ms: [], counts: [] };
  const low = Math.floor(Math.log10(values[0][0]) * binsPerDecade);
  const high = Math.floor(Math.log10(values[values.length - 1][0]) * binsPerDecade);
  const counts = new Array(high - low + 1).fill(0);
  for (const [us, n] of values) counts[Math.floor(Math.log10(us) * binsPerDecade) - low] += n;
  // Each bar stands at its bin's geometric middle.
  const middles = counts.map((_, i) => 10 ** ((low + i + 0.5) / binsPerDecade) / 1000);
  return { ms: middles, counts };
}

function chartData(result) {
  const series = result.series;
  const percentiles = series.map((entry) => latencyFigures(decodeHistogram(entry.hdr, `second ${entry.t}`)));
  // The window's end cuts its last second short: that second's count is a rate over the part it
  // covers, or no point at all when the part is too short for its rate or percentiles to mean much.
  const windowSeconds = (result.window.end - result.window.T) / 1000;
  const covered = series.map((entry) => Math.min(1, windowSeconds - entry.t));
  const point = (i, value) => (covered[i] >= 0.25 && value !== null ? value / covered[i] : null);
  const rates = (key) => series.map((entry, i) => point(i, entry[key]));
  const latency = (p) => percentiles.map((figures, i) => (covered[i] >= 0.25 ? figures[p] : null));
  return {
    t: series.map((entry) => entry.t),
    requests: rates('requests'),
    errors: rates('errors'),
    vusers: series.map((entry) => entry.vusersRunning),
    p50: latency('p50'),
    p90: latency('p90'),
    p99: latency('p99'),
    latency: latencyBins(decodeHistogram(result.latency.hdr, 'latency')),
  };
}

const figure = (id, label, value, shown, note = '') =>
  `<div class="figure" id="${id}" data-value="${escapeHtml(value ?? '')}"><span class="label">${label}</span>` +
  `<span class="value">${shown}</span>${note ? `<span class="note">${note}</span>` : ''}</div>`;

const row = (cells, tag = 'td') => `<tr>${cells.map((c) => `<${tag}>${c}</${tag}>`).join('')}</tr>`;

function identity(result) {
  const vusers = result.vusers || {};
  let shardText = `shard ${result.shard.index} of ${result.shard.count}`;
  if (result.shard.index === null) {
    shardText = `${result.shard.count} merged${result.missingShards?.length ? `, missing ${result.missingShards.join(', ')}` : ''}`;
  } else if (result.shard.count === 1) {
    shardText = 'one (not sharded)';
  }
  const service = result.service
    ? `${result.service.host}:${result.service.port}${result.service.embedded ? ' (embedded stand-in)' : ''}` : '–';
  const items = [
    ['script', escapeHtml(result.script ?? '–')],
    ['script sha256', `<code>${escapeHtml(result.scriptSha256 ?? '–')}</code>`],
    ['run id', escapeHtml(result.runId ?? '–')],
    ['Vusers', `${count(vusers.started)} started of ${count(vusers.planned)}, ${count(vusers.failed)} failed`],
    ['duration', `${escapeHtml((result.seconds ?? (result.window.end - result.window.T) / 1000).toFixed(1))} s` +
      (result.interrupted ? ' (interrupted)' : '')],
    ['start', escapeHtml(isoTime(result.window.T))],
    ['service', escapeHtml(service)],
    ['runner', `kesh-run ${escapeHtml(result.runner?.version ?? '–')}, Node.js ${escapeHtml(result.runner?.node ?? '–')}`],
    ['shards', escapeHtml(shardText)],
  ];
  return `<dl class="identity">${items.map(([k, v]) => `<dt>${k}</dt><dd>${v}</dd>`).join('')}</dl>`;
}

function figures(result, summary) {
  const { latencyMs } = summary;
  const kinds = Object.entries(result.errorsByKind || {}).filter(([, n]) => n > 0);
  const errorNote = `${(summary.errorRate * 100).toFixed(2)}%` +
    (kinds.length ? `: ${kinds.map(([kind, n]) => `${escapeHtml(kind)} ${count(n)}`).join(', ')}` : '');
  return `<div class="figures">${[
    figure('fig-requests', 'requests', summary.requests, count(summary.requests)),
    figure('fig-rps', 'requests / s', summary.requestsPerSecond, rate(summary.requestsPerSecond)),
    figure('fig-errors', 'errors', summary.errors, count(summary.errors), errorNote),
    figure('fig-p50', 'p50', latencyMs.p50, `${ms(latencyMs.p50)} ms`),
    figure('fig-p90', 'p90', latencyMs.p90, `${ms(latencyMs.p90)} ms`),
    figure('fig-p99', 'p99', latencyMs.p99, `${ms(latencyMs.p99)} ms`),
    figure('fig-max', 'max', latencyMs.max, `${ms(latencyMs.max)} ms`),
  ].join('')}</div>`;
}

// A threshold's value in its figure's unit: ms for latencies, percent for errors, rps as it is.
function thresholdValue({ expr, value }) {
  if (value === null || value === undefined) return '–';
  let figure = null;
  try {
    figure = parseThreshold(expr).figure;
  } catch {}
  if (figure === 'errors') return `${value.toFixed(2)}%`;
  if (figure === 'rps') return `${rate(value)}/s`;
  return `${ms(value)} ms`;
}

function verdict(result) {
  const passed = result.passed !== false;
  const thresholds = result.thresholds || [];
  const problems = result.problems || [];
  let html = `<p class="verdict ${passed ? 'passed' : 'failed'}" id="verdict" data-passed="${passed}">` +
    `${passed ? 'passed' : 'failed'}</p>`;
  if (thresholds.length) {
    html += `<table class="thresholds"><thead>${row(['threshold', 'value', ''], 'th')}</thead><tbody>` +
      thresholds.map((t) => row([`<code>${escapeHtml(t.expr)}</code>`, thresholdValue(t),
        t.passed ? '<span class="ok">passed</span>' : '<span class="bad">failed</span>'])).join('') + '</tbody></table>';
  }
  if (problems.length) html += `<ul class="problems">${problems.map((p) => `<li>${escapeHtml(p)}</li>`).join('')}</ul>`;
  return html;
}

function kindsTable(result) {
  const kinds = Object.entries(result.kinds || {});
  if (!kinds.length) return '';
  const rows = kinds.map(([kind, entry]) => {
    const f = latencyFigures(decodeHistogram(entry.latency.hdr, `kind ${kind}`));
    return row([escapeHtml(kind), count(entry.requests), count(entry.errors), ms(f.p50), ms(f.p90), ms(f.p99), ms(f.max)]);
  });
  return `<section><h2>Requests by kind</h2><table class="numbers"><thead>` +
    `${row(['kind', 'requests', 'errors', 'p50 ms', 'p90 ms', 'p99 ms', 'max ms'], 'th')}</thead>` +
    `<tbody>${rows.join('')}</tbody></table></section>`;
}

function shardsTable(result) {
  if (!Array.isArray(result.shards)) return '';
  const firstRelease = Math.min(...result.shards.map((s) => s.releasedAt));
  const rows = result.shards.map((s) =>
    `<tr data-shard="${s.index}"><td>${s.index}</td><td data-field="requests">${count(s.requests)}</td>` +
    `<td data-field="errors">${count(s.errors)}</td><td data-field="p99">${ms(s.p99Ms)}</td>` +
    `<td>${escapeHtml(isoTime(s.releasedAt))} <span class="note">+${s.releasedAt - firstRelease} ms</span></td>` +
    `<td>${s.saturated ? '<span class="bad">saturated</span>' : ''}</td></tr>`);
  for (const index of result.missingShards || []) {
    rows.push(`<tr data-shard="${index}" class="missing"><td>${index}</td><td colspan="5">missing</td></tr>`);
  }
  return `<section><h2>Shards</h2><p>release skew <strong id="release-skew" data-value="${result.releaseSkewMs}">` +
    `${result.releaseSkewMs} ms</strong> (last shard released minus first)</p><table class="numbers shards">` +
    `<thead>${row(['shard', 'requests', 'errors', 'p99 ms', 'released', ''], 'th')}</thead>` +
    `<tbody>${rows.join('')}</tbody></table></section>`;
}

const chart = (name, title) =>
  `<figure class="chart"><figcaption>${title}</figcaption><div data-chart="${name}"></div></figure>`;

// The page of one result (a run, a shard, or a merge), as an HTML string.
function buildReport(result) {
  const summary = summarize(result);
  const title = `kesh-run report: ${result.script ?? 'run'} ${isoTime(result.window.T)}`;
  const saturated = result.saturated
    ? '<p class="warning">The runner was saturated during this run: its own loop lagged, so the figures are suspect.</p>' : '';
  return `<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; img-src data:; base-uri 'none'; form-action 'none'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>${escapeHtml(title)}</title>
<style>${readAsset(path.join(uplotDist, 'uPlot.min.css'))}</style>
<style>${readAsset(path.join(__dirname, 'page.css'))}</style>
</head>
<body>
<header><h1>kesh-run report <span class="script">${escapeHtml(result.script ?? '')}</span></h1>${verdict(result)}</header>
<main>
${saturated}
<section>${identity(result)}</section>
<section>${figures(result, summary)}</section>
<section class="charts">
${chart('requests', 'Requests per second')}
${chart('latency', 'Latency per second (ms, log scale)')}
${chart('errors', 'Errors per second')}
${chart('vusers', 'Vusers running')}
${chart('histogram', 'Latency of the whole run (ms, log scale)')}
</section>
${shardsTable(result)}
${kindsTable(result)}
</main>
<footer>Seconds count from the start of the measured window (${escapeHtml(isoTime(result.window.T))}).</footer>
<script type="application/json" id="kesh-data">${jsonForScript(chartData(result))}</script>
<script>${inlineScript(readAsset(path.join(uplotDist, 'uPlot.iife.min.js')))}</script>
<script>${inlineScript(readAsset(path.join(__dirname, 'page.js')))}</script>
</body>
</html>
`;
}

module.exports = { buildReport };
