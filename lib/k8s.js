'use strict';
// kesh-run k8s: what runs the shards of one load run as a Kubernetes Indexed Job, and what
// brings their results back.
//   manifest --shards N [--name NAME] [--image IMAGE] [--namespace NS] [--cpu C] [--memory M]
//            [--run-id ID] [runner options] [script]   prints the objects for `kubectl apply -f -`
//   collect --job NAME [--namespace NS] [--out DIR]    reads the shards' results from their logs
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const { parseArgs } = require('node:util');
const { newRunId } = require('./shard');
const { kJobLabel } = require('./barrier');
const resultLines = require('./resultLines');

const usage = `usage: kesh-run k8s manifest --shards N [--name NAME] [--image IMAGE] [--namespace NS]
                             [--cpu C] [--memory M] [--run-id ID] [runner options] [script.js]
       kesh-run k8s collect --job NAME [--namespace NS] [--out DIR]`;

// Options the manifest sets itself in each pod.
const kSetByManifest = ['--shard-index', '--shard-count', '--run-id', '--barrier', '--json'];
const kMarginSeconds = 120; // pod start-up and the stop, beyond barrier and run

function fail(message) {
  console.error(`kesh-run k8s: ${message}\n${usage}`);
  process.exitCode = 2;
}

// The manifest's own options are taken out; the rest is the runner's command line in each pod.
function splitArgs(argv) {
  const own = { shards: null, name: 'kesh-run', image: `ostrale-kesh:${require('../package.json').version}`,
    namespace: null, cpu: '2', memory: '2Gi', 'run-id': null };
  const runner = [];
  for (let i = 0; i < argv.length; i++) {
    const [flag, inline] = argv[i].split(/=(.*)/s);
    const name = flag.slice(2);
    if (flag.startsWith('--') && Object.hasOwn(own, name)) {
      own[name] = inline ?? argv[++i];
      if (own[name] === undefined) throw new Error(`${flag} needs a value`);
    } else if (kSetByManifest.includes(flag)) {
      throw new Error(`${flag} is set by the manifest for each pod`);
    } else {
      runner.push(argv[i]);
    }
  }
  return { own, runner };
}

// The number after `flag` on the runner's command line, or `fallback`.
function runnerNumber(runner, flag, fallback) {
  for (let i = 0; i < runner.length; i++) {
    if (runner[i] === flag) return Number(runner[i + 1]);
    if (runner[i].startsWith(`${flag}=`)) return Number(runner[i].slice(flag.length + 1));
  }
  return fallback;
}

function manifest(argv) {
  const { own, runner } = splitArgs(argv);
  const shards = Number(own.shards);
  if (!Number.isInteger(shards) || shards < 1) throw new Error('--shards must be a positive integer');
  if (!/^[a-z0-9]([-a-z0-9]{0,50}[a-z0-9])?$/.test(own.name)) throw new Error('--name must be a DNS label of at most 52 characters');
  const runId = own['run-id'] || newRunId();
  const seconds = runnerNumber(runner, '--seconds', 10);
  const barrierTimeout = runnerNumber(runner, '--barrier-timeout', 300);
  const lead = runnerNumber(runner, '--barrier-lead', 2);
  if (![seconds, barrierTimeout, lead].every((n) => n >= 0)) throw new Error('--seconds, --barrier-timeout and --barrier-lead must be numbers');
  const name = own.name;
  const metadata = (extra = {}) => ({ name, ...(own.namespace ? { namespace: own.namespace } : {}), labels: { 'app.kubernetes.io/name': 'ostrale-kesh' }, ...extra });
  const resources = { cpu: own.cpu, memory: own.memory };
  const fieldEnv = (envName, fieldPath) => ({ name: envName, valueFrom: { fieldRef: { fieldPath } } });
  const job = {
    apiVersion: 'batch/v1',
    kind: 'Job',
    metadata: metadata({ annotations: { 'ostrale-kesh/run-id': runId } }),
    spec: {
      completionMode: 'Indexed',
      completions: shards,
      parallelism: shards,
      // A failed shard is not retried (a late one could not join) and does not end the others;
      // the merge reports it missing.
      backoffLimitPerIndex: 0,
      podReplacementPolicy: 'Failed',
      activeDeadlineSeconds: Math.ceil(barrierTimeout + lead + seconds + kMarginSeconds),
      template: {
        metadata: { labels: { 'app.kubernetes.io/name': 'ostrale-kesh' } },
        spec: {
          restartPolicy: 'Never',
          serviceAccountName: name,
          topologySpreadConstraints: [{
            maxSkew: 1,
            topologyKey: 'kubernetes.io/hostname',
            whenUnsatisfiable: 'ScheduleAnyway',
            labelSelector: { matchLabels: { [kJobLabel]: name } },
          }],
          containers: [{
            name: 'shard',
            image: own.image,
            command: ['kesh-run'],
            args: [...runner, '--barrier', 'k8s', '--json', '-'],
            env: [
              { name: 'KESH_SHARD_COUNT', value: String(shards) },
              { name: 'KESH_RUN_ID', value: runId },
              { name: 'KESH_JOB_NAME', value: name },
              fieldEnv('POD_NAME', 'metadata.name'),
              fieldEnv('POD_NAMESPACE', 'metadata.namespace'),
            ],
            // Requests equal to limits: the shard's CPU is its own, not what a neighbour leaves.
            resources: { requests: resources, limits: resources },
          }],
        },
      },
    },
  };
  const serviceAccount = { apiVersion: 'v1', kind: 'ServiceAccount', metadata: metadata() };
  const role = {
    apiVersion: 'rbac.authorization.k8s.io/v1',
    kind: 'Role',
    metadata: metadata(),
    rules: [{ apiGroups: [''], resources: ['pods'], verbs: ['get', 'list', 'patch'] }],
  };
  const roleBinding = {
    apiVersion: 'rbac.authorization.k8s.io/v1',
    kind: 'RoleBinding',
    metadata: metadata(),
    subjects: [{ kind: 'ServiceAccount', name, ...(own.namespace ? { namespace: own.namespace } : {}) }],
    roleRef: { apiGroup: 'rbac.authorization.k8s.io', kind: 'Role', name },
  };
  return { apiVersion: 'v1', kind: 'List', items: [serviceAccount, role, roleBinding, job] };
}

function kubectl(args) {
  return execFileSync('kubectl', args, { encoding: 'utf8', maxBuffer: 1 << 28, timeout: 120000, stdio: ['ignore', 'pipe', 'pipe'] });
}

// Every pod's log, its result lines checked and written to DIR as <run id>-shard-<i>.json.
// Returns the problems: a corrupted or cut result, a shard that left none.
function collect(argv) {
  const { values } = parseArgs({
    args: argv,
    options: { job: { type: 'string' }, namespace: { type: 'string' }, out: { type: 'string', default: '.' } },
  });
  if (!values.job) throw new Error('collect needs --job NAME');
  const ns = values.namespace ? ['-n', values.namespace] : [];
  const pods = JSON.parse(kubectl(['get', 'pods', ...ns, '-l', `${kJobLabel}=${values.job}`, '-o', 'json'])).items || [];
  const problems = [];
  const written = [];
  for (const pod of pods) {
    const podName = pod.metadata.name;
    let results;
    try {
      results = resultLines.decode(kubectl(['logs', ...ns, podName]), `pod ${podName}`);
    } catch (err) {
      problems.push(err.message);
      continue;
    }
    if (results.length === 0) problems.push(`pod ${podName} (${pod.status?.phase || 'no phase'}) left no result`);
    for (const result of results) {
      const file = path.join(values.out, `${result.runId}-shard-${result.shard.index}.json`);
      fs.writeFileSync(file, `${JSON.stringify(result)}\n`);
      written.push(file);
    }
  }
  if (pods.length === 0) problems.push(`no pods of job ${values.job}`);
  for (const file of written) console.log(file);
  if (written.length) console.log(`kesh-run k8s: merge with: kesh-run merge ${written.join(' ')}`);
  return problems;
}

function main(argv) {
  const [command, ...rest] = argv;
  try {
    if (command === 'manifest') {
      console.log(JSON.stringify(manifest(rest), null, 2));
    } else if (command === 'collect') {
      const problems = collect(rest);
      for (const problem of problems) console.error(`kesh-run k8s: ${problem}`);
      if (problems.length) process.exitCode = 1;
    } else {
      fail(command === undefined ? 'which command?' : `no command ${JSON.stringify(command)}`);
    }
  } catch (err) {
    if (command === 'collect') {
      console.error(`kesh-run k8s: ${err.message}`);
      process.exitCode = 1;
    } else {
      fail(err.message);
    }
  }
}

module.exports = { main, manifest };
