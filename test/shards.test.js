'use strict';
// Shards as local processes with an Indexed Job pod's environment; a fake Kubernetes API and kubectl.
const test = require('node:test');
const assert = require('node:assert');
const fs = require('node:fs');
const http = require('node:http');
const path = require('node:path');
const { spawnSync } = require('node:child_process');
const { scriptDir, startRunner, modulePath } = require('./helpers');
const pelmare = require('../tools/pelmare');
const { shardIds, shardOf } = require('../lib/shard');
const { createBarrier, kReadyAnnotation, kIndexAnnotation } = require('../lib/barrier');
const { RunResult } = require('../lib/results');
const resultLines = require('../lib/resultLines');

const kesh = (args, env = process.env) => spawnSync(process.execPath, [path.join(modulePath, 'bin', 'kesh-run.js'), ...args],
  { encoding: 'utf8', timeout: 20000, env });
const dir = scriptDir({
  // Load only from the run function, inside the window: what the service answers is what the shards measure.
  'hit.js': `const kesh = keshRequire(${JSON.stringify(path.join(modulePath, 'lib', 'vuser.js'))}, __dirname);
    kesh.connect(args.service.port, args.service.host);
    function hit() { kesh.measure('hit', () => kesh.sendSync({ op: 'echo', data: vuser_id })); }`,
});
const script = path.join(dir, 'hit.js');
const shardArgs = (service, barrierDir, ...more) => ['--vusers', '9', '--seconds', '1', '--service', `127.0.0.1:${service.port}`,
  '--barrier', `file:${barrierDir}`, '--barrier-lead', '0.5', '--run', 'hit', '--every', '20', '--quiet', ...more, script];
// Runs `body` against a fresh stand-in service and barrier directory, with `shard(args, index, runId)` starting a shard
// process in an Indexed Job pod's environment; shards a fault kept running are killed at the end.
const withShards = (body) => async () => {
  const [service, started] = [await pelmare.start(), []];
  const shard = (args, index, runId) => {
    started.push(startRunner(args, { env: { ...process.env, JOB_COMPLETION_INDEX: String(index), KESH_SHARD_COUNT: '3', KESH_RUN_ID: runId } }));
    return started.at(-1);
  };
  try {
    await body(service, fs.mkdtempSync(path.join(dir, 'barrier-')), shard);
  } finally {
    for (const { child } of started) if (child.exitCode === null && child.signalCode === null) child.kill('SIGKILL');
    await service.close();
  }
};
const kProcessTest = { timeout: 30000 };

test('shard ids partition the run\'s ids; index and count come from options, then the environment', () => {
  for (const count of [1, 2, 7]) {
    for (const vusers of [0, 1, count - 1, count, 7919, 100000]) {
      const first = 0xffffffff - vusers; // the highest ids a run can have
      const sizes = Array.from({ length: count }, (_, index) => shardIds(first, vusers, index, count)).map((ids, i, all) => {
        assert.strictEqual(ids.first, i === 0 ? first : all[i - 1].first + all[i - 1].count, `V=${vusers} N=${count}: shard ${i} not next`);
        return ids.count;
      });
      assert.strictEqual(sizes.reduce((a, b) => a + b, 0), vusers, `V=${vusers} N=${count}`);
      assert.ok(Math.max(...sizes) - Math.min(...sizes) <= 1, `V=${vusers} N=${count}: ${sizes}`);
    }
  }
  const env = { KESH_SHARD_INDEX: '1', JOB_COMPLETION_INDEX: '2', KESH_SHARD_COUNT: '3', KESH_RUN_ID: 'r' };
  assert.deepStrictEqual([shardOf({}, env), shardOf({ index: '0' }, env), shardOf({}, { ...env, KESH_SHARD_INDEX: undefined }), shardOf({}, {})],
    [{ index: 1, count: 3, runId: 'r' }, { index: 0, count: 3, runId: 'r' }, { index: 2, count: 3, runId: 'r' }, null]);
  for (const [bad, message] of [[{ ...env, KESH_SHARD_INDEX: '3' }, /must be 0\.\.2/], [{ JOB_COMPLETION_INDEX: '0' }, /needs --shard-count/],
    [{ ...env, KESH_RUN_ID: undefined }, /need its id/]]) assert.throws(() => shardOf({}, bad), message);
});

test('three shards, one prepared 1.5 s late, start together and merge to what the service answered', kProcessTest, withShards(async (service, barrierDir, shard) => {
  const files = [0, 1, 2].map((i) => path.join(barrierDir, `shard-${i}.json`));
  // Shard 1 sends its result as log lines, the way it leaves a pod.
  const shards = [0, 1].map((i) => shard(shardArgs(service, barrierDir, '--json', i === 1 ? '-' : files[i]), i, 'e2e'));
  await shards[0].waitFor(/waiting at the barrier/);
  await new Promise((resolve) => setTimeout(resolve, 1500)); // the late shard's slow preparation
  shards.push(shard(shardArgs(service, barrierDir, '--json', files[2]), 2, 'e2e'));
  const exits = await Promise.all(shards.map((s) => s.exited));
  exits.forEach((r, i) => assert.strictEqual(r.code, 0, `shard ${i}: ${r.stdout}${r.stderr}`));
  fs.writeFileSync(files[1], JSON.stringify(resultLines.decode(exits[1].stdout)[0]));
  const merge = kesh(['merge', ...files, '--json', path.join(barrierDir, 'merged.json'), '--threshold', 'errors<1%']);
  assert.strictEqual(merge.status, 0, merge.stdout + merge.stderr);
  assert.match(merge.stdout, /^ {2}shards {5}3 of 3, released within \d+ ms$/m);
  const merged = JSON.parse(fs.readFileSync(path.join(barrierDir, 'merged.json'), 'utf8'));
  const answered = service.requests.filter((r) => r.op === 'echo').length;
  assert.deepStrictEqual([answered > 0, merged.counts.requests, merged.vusers.started], [true, answered, 9]);
  assert.ok(merged.releaseSkewMs < 100, `release skew ${merged.releaseSkewMs} ms`);
}));

test('a shard that never arrives, or arrives after the start, ends with exit 3 and sends nothing', kProcessTest, withShards(async (service, barrierDir, shard) => {
  const json = (name) => ['--json', path.join(barrierDir, `${name}.json`)];
  const waiting = [0, 1].map((i) => shard(shardArgs(service, barrierDir, '--barrier-timeout', '1', ...json(i)), i, 'alone'));
  const late = shard(shardArgs(service, barrierDir, '--barrier', `at:${Date.now() - 5000}`, ...json('late')), 2, 'late');
  await Promise.all(waiting.map((s) => s.waitFor(/waiting at the barrier/)));
  const arrived = Date.now();
  const exits = await Promise.all(waiting.map((s) => s.exited));
  assert.ok(Date.now() - arrived < 2000, `exited ${Date.now() - arrived} ms after arriving`);
  exits.push(await late.exited);
  exits.forEach((r, i) => {
    assert.strictEqual(r.code, 3, r.stdout + r.stderr);
    assert.match(r.stdout, i < 2 ? /barrier timeout: shard 2 of 3 never arrived/ : /too late for the start: \d+ ms after it/);
  });
  assert.deepStrictEqual([fs.readdirSync(barrierDir).filter((f) => f.endsWith('.json')), service.requests.length], [[], 0]);
  // Every Vuser's connection closed with its process.
  for (const deadline = Date.now() + 5000; service.connections() !== 0; await new Promise((resolve) => setTimeout(resolve, 20))) {
    assert.ok(Date.now() < deadline, 'a connection still open');
  }
}));

test('k8s barrier: patches its own pod, waits for every index, ignores failed pods', async () => {
  const seen = [];
  const pod = (name, index, phase, readyAt) => ({ status: { phase },
    metadata: { name, annotations: { [kIndexAnnotation]: String(index), ...(readyAt ? { [kReadyAnnotation]: String(readyAt) } : {}) } } });
  const own = pod('job-0-abc', 0, 'Running');
  const peerReadyAt = Date.now() - 100;
  const server = http.createServer(async (req, res) => {
    let body = '';
    for await (const chunk of req) body += chunk;
    seen.push(`${req.method} ${req.url} ${req.headers.authorization} ${req.headers['content-type'] || ''}`);
    if (req.method === 'PATCH') Object.assign(own.metadata.annotations, JSON.parse(body).metadata.annotations);
    // The peer's annotation appears on the second list; its failed pod would put the start an hour away.
    const lists = seen.filter((line) => line.startsWith('GET')).length;
    const items = [own, pod('job-1-old', 1, 'Failed', Date.now() + 3600e3), pod('job-1-def', 1, 'Running', lists >= 2 ? peerReadyAt : null)];
    res.setHeader('Content-Type', 'application/json');
    res.end(JSON.stringify(req.method === 'PATCH' ? own : { items }));
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  try {
    const env = { KESH_K8S_API: `http://127.0.0.1:${server.address().port}`, KESH_K8S_POLL_MS: '50', POD_NAME: 'job-0-abc',
      KESH_JOB_NAME: 'job', KESH_K8S_SECRETS: scriptDir({ token: 'secret-token\n', namespace: 'load\n' }) };
    const readyAt = Date.now();
    const T = await createBarrier('k8s', { runId: 'r', index: 0, count: 2, leadMs: 1000, timeoutMs: 5000, env }).arrive(readyAt);
    assert.deepStrictEqual([T, own.metadata.annotations[kReadyAnnotation]], [Math.max(readyAt, peerReadyAt) + 1000, String(readyAt)]);
    assert.deepStrictEqual(seen.slice(0, 2), [
      'PATCH /api/v1/namespaces/load/pods/job-0-abc Bearer secret-token application/merge-patch+json',
      `GET /api/v1/namespaces/load/pods?labelSelector=${encodeURIComponent('batch.kubernetes.io/job-name=job')} Bearer secret-token `,
    ]);
  } finally {
    server.close();
  }
});

test('k8s collect reads results from pod logs and finds a corrupted piece; the manifest holds its invariants', () => {
  // A result of many kinds takes several lines.
  const result = new RunResult({ runId: 'job-run', shard: { index: 0, count: 2 }, vuserIds: { first: 1, count: 1 }, script: 's.js', service: null });
  result.release(Date.now());
  for (let i = 0; i < 3000; i++) result.record(`kind${i % 90}`, (i * 7919) % 5000 / 7, null);
  result.end();
  const lines = resultLines.encode(result.toJSON());
  assert.ok(lines.length > 1 && lines.every((line) => Buffer.byteLength(line) < 4096), lines.map((l) => l.length).join());
  const corrupted = resultLines.encode({ ...result.toJSON(), shard: { index: 1, count: 2 } })
    .map((line, i) => (i === 1 ? line.replace(/A(?=[^A]*$)/, 'B') : line));
  const fake = scriptDir({
    'pods.json': JSON.stringify({ items: [{ metadata: { name: 'job-0-a' } }, { metadata: { name: 'job-1-b' } }] }),
    'job-0-a.log': `kesh-run: summary\n${lines.map((l) => `2026-01-01T00:00:00Z ${l}`).join('\n')}\n`,
    'job-1-b.log': `${corrupted.join('\n')}\n`,
    kubectl: `#!${process.execPath}
      const [command, ...rest] = process.argv.slice(2);
      const name = command === 'get' && rest.includes('batch.kubernetes.io/job-name=job') ? 'pods.json'
        : command === 'logs' ? rest.at(-1) + '.log' : process.exit(1);
      process.stdout.write(require('fs').readFileSync(require('path').join(__dirname, name)));`,
  });
  fs.chmodSync(path.join(fake, 'kubectl'), 0o755);
  const collect = kesh(['k8s', 'collect', '--job', 'job', '--out', fake], { ...process.env, PATH: `${fake}${path.delimiter}${process.env.PATH}` });
  assert.strictEqual(collect.status, 1, collect.stdout + collect.stderr);
  assert.match(collect.stderr, /pod job-1-b: piece 2\/\d+ of run job-run shard 1 is corrupted \(checksum\)/);
  assert.deepStrictEqual(JSON.parse(fs.readFileSync(path.join(fake, 'job-run-shard-0.json'), 'utf8')), JSON.parse(JSON.stringify(result.toJSON())));

  const made = kesh(['k8s', 'manifest', '--shards', '4', '--name', 'load', '--vusers', '400', '--seconds', '60', '--barrier-timeout', '100', script]);
  assert.strictEqual(made.status, 0, made.stderr);
  const { Job: { spec }, ServiceAccount, Role, RoleBinding } = Object.fromEntries(JSON.parse(made.stdout).items.map((item) => [item.kind, item]));
  const pod = spec.template.spec;
  const [container] = pod.containers;
  const env = Object.fromEntries(container.env.map((e) => [e.name, e.value ?? e.valueFrom.fieldRef.fieldPath]));
  assert.deepStrictEqual([spec.completionMode, spec.completions, spec.parallelism, spec.backoffLimitPerIndex, spec.podReplacementPolicy,
    pod.restartPolicy, env.KESH_SHARD_COUNT, env.KESH_JOB_NAME, env.POD_NAME], ['Indexed', 4, 4, 0, 'Failed', 'Never', '4', 'load', 'metadata.name']);
  assert.ok(spec.activeDeadlineSeconds >= 100 + 2 + 60, spec.activeDeadlineSeconds);
  assert.deepStrictEqual(pod.topologySpreadConstraints.map((c) => [c.topologyKey, c.labelSelector.matchLabels['batch.kubernetes.io/job-name']]),
    [['kubernetes.io/hostname', 'load']]);
  assert.deepStrictEqual(container.resources.requests, container.resources.limits);
  assert.deepStrictEqual(container.args.slice(-4), ['--barrier', 'k8s', '--json', '-']);
  assert.deepStrictEqual([pod.serviceAccountName, RoleBinding.roleRef.name, RoleBinding.subjects[0].name, Role.rules],
    [ServiceAccount.metadata.name, Role.metadata.name, pod.serviceAccountName, [{ apiGroups: [''], resources: ['pods'], verbs: ['get', 'list', 'patch'] }]]);
  const refused = kesh(['k8s', 'manifest', '--shards', '2', '--shard-index', '0']);
  assert.deepStrictEqual([refused.status, /--shard-index is set by the manifest/.test(refused.stderr)], [2, true], refused.stderr);
});
