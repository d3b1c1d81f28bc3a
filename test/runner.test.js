'use strict';
// kesh-run as a person runs it: a child process, its printed summary, its JSON and exit code.
const test = require('node:test');
const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const { scriptDir, startRunner: start } = require('./helpers');
const pelmare = require('../tools/pelmare');
const { decodeHistogram } = require('../lib/resultFormat');

const root = path.join(__dirname, '..');
const [kesh, connect] = [`const kesh = keshRequire(${JSON.stringify(path.join(root, 'lib', 'vuser.js'))}, __dirname);`,
  'kesh.connect(args.service.port, args.service.host);'];
const dir = scriptDir({
  'mixed.js': `${kesh} if (vuser_id === '2') throw new Error('no start for 2'); kesh.report('good', 1.5); kesh.report('bad', 2.5, 'check');`,
  'kinds.js': `${kesh} ${connect} kesh.measure('late', () => kesh.send({ op: 'silent' }, { timeoutMs: 100 })).catch(() => {});
    try { kesh.measure('throws', () => { throw new TypeError('x'); }); } catch {}
    kesh.measure('echo', () => kesh.send({ op: 'echo' }, { timeoutMs: 1000 }));`,
  'hangs.js': `${kesh} ${connect} function hang() { kesh.measure('hang', () => kesh.sendSync({ op: 'silent' })); }`,
  'ends.js': `_enableRunningAsyncCallbacks(); _setTimer(false, () => process.exit(3), 50);`,
  'stamps.js': `keshConsole('started at ' + Date.now(), 'Info');`,
  'spins.js': `function spin() { keshConsole('spinning', 'Info'); for (;;) {} }`,
});

const run = (...args) => start(args).exited;
const figure = (stdout, label) => new RegExp(`^  ${label} +(.*)$`, 'm').exec(stdout)?.[1];
const requestsOf = (stdout) => Number(/^(\d+), /.exec(figure(stdout, 'requests'))[1]);
const tmpFile = (name) => path.join(dir, name);
const readJson = (file) => JSON.parse(fs.readFileSync(file, 'utf8'));

test('npm start: the default load passes; its JSON, its printed summary and its --report page agree', async () => {
  const command = readJson(path.join(root, 'package.json')).scripts.start.split('&&').pop().trim().split(/\s+/);
  const r = await run(...command.slice(2), '--seconds', '1', '--json', tmpFile('start.json'), '--report', tmpFile('start.html'));
  assert.strictEqual(r.code, 0, r.stdout + r.stderr);
  const requests = requestsOf(r.stdout);
  const result = readJson(tmpFile('start.json'));
  const { p50, p90, p99, max } = result.summary.latencyMs;
  const ms = (v) => `${v >= 100 ? v.toFixed(0) : v >= 10 ? v.toFixed(1) : v.toFixed(2)} ms`;
  assert.ok(requests > 0, r.stdout);
  assert.deepStrictEqual(['Vusers', 'errors', 'result', 'latency'].map((label) => figure(r.stdout, label)),
    ['10 of 10 started, 0 failed', '0 (0.00%)', 'passed', `p50 ${ms(p50)}, p90 ${ms(p90)}, p99 ${ms(p99)}, max ${ms(max)}`]);
  // At the default level no Debug or trace line is shown, whatever the add-on delivers.
  assert.doesNotMatch(r.stdout, /^\[(Debug|trace)\] /m);
  assert.match(r.stdout, /report: .*start\.html/);
  assert.deepStrictEqual([result.passed, result.counts, result.vusers],
    [true, { requests, errors: 0 }, { planned: 10, started: 10, failedToStart: 0, endedEarly: 0, failed: 0 }]);
  assert.deepStrictEqual([Object.values(result.kinds).reduce((sum, k) => sum + k.requests, 0),
    decodeHistogram(result.latency.hdr).totalCount, result.series.reduce((sum, s) => sum + s.requests, 0)], [requests, requests, requests]);
  const html = fs.readFileSync(tmpFile('start.html'), 'utf8');
  assert.deepStrictEqual(['requests', 'errors', 'p99'].map((name) => Number(new RegExp(`id="fig-${name}" data-value="([^"]*)"`).exec(html)[1])),
    [requests, 0, p99]);
});

test('the exit code fails a run whose Vusers fail or whose errors pass --max-errors; --service, --log-level and --log-file', async () => {
  const service = await pelmare.start();
  const log = tmpFile('run.log');
  const cases = [ // the arguments, the exit code, figures of the summary, a line of the output, further checks
    [['--vusers', '3', '--seconds', '0', '--log-level', 'trace', '--json', tmpFile('mixed.json'), tmpFile('mixed.js')], 1,
      { Vusers: '2 of 3 started, 1 failed', errors: '2 (50.00%): check 2',
        result: 'failed: 1 of 3 Vusers failed to start; error rate 50.00% above --max-errors 0%' },
      /Vuser \[2\] failed during script initialization .*no start for 2/, (r) => {
        assert.doesNotMatch(r.stdout, /shows the error its script threw/);
        const json = readJson(tmpFile('mixed.json'));
        assert.deepStrictEqual([json.counts.requests, json.errorsByKind, json.kinds.bad.errors, json.passed], [4, { check: 2 }, 2, false]);
      }],
    [['--vusers', '2', '--seconds', '0', tmpFile('mixed.js')], 1, {},
      /^\[Error\] kesh-run - Vuser 2 failed to start; --log-level trace shows the error its script threw$/m],
    [['--vusers', '1', '--seconds', '0', '--max-errors', '50', tmpFile('mixed.js')], 0, {}],
    [['--vusers', '1', '--seconds', '0.4', tmpFile('kinds.js')], 1, { errors: '2 (66.67%): exception 1, timeout 1' }],
    [['--vusers', '2', '--seconds', '0.3', tmpFile('ends.js')], 1, { Vusers: '2 of 2 started, 2 failed (2 ended early)' }, null,
      (r) => assert.doesNotMatch(r.stdout, /blocked another closing request/)],
    // What the stop cut off is neither an error nor a request.
    [['--vusers', '2', '--seconds', '0.3', '--run', 'hang', tmpFile('hangs.js')], 0, { errors: '0 (0.00%)' }],
    [[tmpFile('missing.js')], 1, {}, /script file not found/],
    [['--vusers', '0'], 2, {}],
    [['--service', '127.0.0.1:1', '--seconds', '0'], 1, {}, /cannot reach the service at 127\.0\.0\.1:1/],
    [['--service', `127.0.0.1:${service.port}`, '--vusers', '2', '--seconds', '0.5', '--log-level', 'warning', '--log-file', log, 'examples/load.js'],
      0, {}, new RegExp(`^  script +.*against 127\\.0\\.0\\.1:${service.port}$`, 'm'), (r) => {
        // Each feed also opens, pushes to and closes a socket; the probe connection sends nothing.
        const requests = requestsOf(r.stdout);
        assert.ok(requests > 0 && service.requests.length >= requests, `${requests} ${service.requests.length}`);
        assert.doesNotMatch(r.stdout, /^\[(Info|Debug|trace)\] /m);
        const kept = fs.readFileSync(log, 'utf8');
        assert.match(kept, /\[Debug\] VuserThread - \(\d+\) Vuser \[2\] Started thread(.|\n)*\[Info\] kesh-run: summary/);
        assert.doesNotMatch(kept, /kesh:request/);
      }],
  ];
  try {
    const runs = await Promise.all(cases.map(([args]) => run(...args)));
    cases.forEach(([args, code, figures, pattern, check], i) => {
      assert.strictEqual(runs[i].code, code, `${args}: ${runs[i].stdout}${runs[i].stderr}`);
      for (const [label, value] of Object.entries(figures)) assert.strictEqual(figure(runs[i].stdout, label), value);
      if (pattern) assert.match(runs[i].stdout, pattern);
      check?.(runs[i]);
    });
  } finally {
    await service.close();
  }
});

test('--ramp starts the Vusers evenly over its time', async () => {
  const r = await run('--vusers', '4', '--ramp', '0.8', '--seconds', '0', tmpFile('stamps.js'));
  const stamps = [...r.stdout.matchAll(/started at (\d+)/g)].map((m) => Number(m[1])).sort();
  const gaps = stamps.slice(1).map((t, i) => t - stamps[i]);
  assert.ok(r.code === 0 && gaps.length === 3 && gaps.every((gap) => gap > 100 && gap < 450), `exit ${r.code}, gaps ${gaps}\n${r.stdout}`);
});

test('Ctrl-C stops every Vuser and prints the summary so far; a second one quits at once', async () => {
  const load = start(['--vusers', '3', '--seconds', '60']);
  await load.waitFor(/^ +\d+\.\d s {2}Vusers 3\/3 started, 3 running, 0 failed \| [1-9]\d* requests/m);
  load.child.kill('SIGINT');
  const r = await load.exited;
  assert.deepStrictEqual([r.code, /kesh-run: summary \(interrupted\)/.test(r.stdout), requestsOf(r.stdout) > 0], [130, true, true], r.stdout);
  // A Vuser that never yields holds the stop; the second Ctrl-C does not wait for it.
  const stuck = start(['--vusers', '1', '--seconds', '60', '--run', 'spin', '--every', '20', tmpFile('spins.js')]);
  await stuck.waitFor(/spinning/);
  stuck.child.kill('SIGINT');
  await stuck.waitFor(/stopping the Vusers/);
  stuck.child.kill('SIGINT');
  assert.strictEqual((await stuck.exited).signal, 'SIGINT');
});
