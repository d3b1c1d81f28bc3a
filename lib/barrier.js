'use strict';
// The start barrier of the shards of one run. Every shard announces when it is ready and learns
// when all are; each computes the same start T = max(readyAt) + lead, so no leader is needed and
// no shard talks to another during the run.
const fs = require('node:fs');
const path = require('node:path');
const http = require('node:http');
const https = require('node:https');
const { setTimeout: sleep } = require('node:timers/promises');

const kLateToleranceMs = 250;
const kReadyAnnotation = 'ostrale-kesh/ready-at';
const kIndexAnnotation = 'batch.kubernetes.io/job-completion-index';
const kJobLabel = 'batch.kubernetes.io/job-name';

class BarrierError extends Error {}

// Calls `poll` every `pollMs` until it returns the readyAt of every shard (an array), the
// deadline passes, or `signal` aborts the wait.
async function pollUntilAll(poll, { deadline, pollMs, what, signal }) {
  let lastError = null;
  for (;;) {
    try {
      const readyAts = await poll();
      if (readyAts !== null) return readyAts;
    } catch (err) {
      lastError = err;
    }
    if (Date.now() + pollMs > deadline) {
      throw new BarrierError(`barrier timeout: ${what()}${lastError ? ` (last error: ${lastError.message})` : ''}`);
    }
    await sleep(pollMs, undefined, { signal });
  }
}

// file:DIR — local processes or pods that share a volume.
function fileBarrier(dir, { runId, index, count }) {
  const runDir = path.join(dir, runId);
  const file = (i) => path.join(runDir, `ready-${i}.json`);
  let seen = 0;
  return {
    pollMs: 50,
    announce(readyAt) {
      fs.mkdirSync(runDir, { recursive: true });
      // Written aside and linked in: a reader sees the whole file or none. A file already there
      // is an earlier arrival of this index, whose time stands.
      const temp = `${file(index)}.${process.pid}.tmp`;
      fs.writeFileSync(temp, JSON.stringify({ index, readyAt, pid: process.pid }));
      try {
        fs.linkSync(temp, file(index));
      } catch (err) {
        if (err.code !== 'EEXIST') throw err;
      } finally {
        fs.rmSync(temp, { force: true });
      }
    },
    poll() {
      const readyAts = [];
      for (let i = 0; i < count; i++) {
        let text;
        try {
          text = fs.readFileSync(file(i), 'utf8');
        } catch (err) {
          if (err.code === 'ENOENT') {
            seen = i;
            return null;
          }
          throw err;
        }
        readyAts.push(JSON.parse(text).readyAt);
      }
      return readyAts;
    },
    waiting: () => `shard ${seen} of ${count} never arrived in ${runDir}`,
  };
}

// The Kubernetes API as a pod sees it: the service account's token and CA, its namespace.
// KESH_K8S_API and KESH_K8S_SECRETS point elsewhere (an http: URL is allowed, for tests).
function kubeApi(env = process.env) {
  const secrets = env.KESH_K8S_SECRETS || '/var/run/secrets/kubernetes.io/serviceaccount';
  const read = (name) => fs.readFileSync(path.join(secrets, name), 'utf8').trim();
  const base = new URL(env.KESH_K8S_API || `https://${env.KUBERNETES_SERVICE_HOST}:${env.KUBERNETES_SERVICE_PORT || 443}`);
  const token = read('token');
  const ca = base.protocol === 'https:' ? fs.readFileSync(path.join(secrets, 'ca.crt')) : undefined;
  const namespace = env.POD_NAMESPACE || read('namespace');
  const request = (method, pathname, body) => new Promise((resolve, reject) => {
    const url = new URL(pathname, base);
    const headers = { Authorization: `Bearer ${token}`, Accept: 'application/json' };
    if (body !== undefined) headers['Content-Type'] = 'application/merge-patch+json';
    const req = (url.protocol === 'https:' ? https : http).request(url, { method, headers, ca, timeout: 5000 }, (res) => {
      const chunks = [];
      res.on('data', (chunk) => chunks.push(chunk));
      res.on('end', () => {
        const text = Buffer.concat(chunks).toString('utf8');
        if (res.statusCode >= 300) reject(new Error(`${method} ${url.pathname}: HTTP ${res.statusCode} ${text.slice(0, 200)}`));
        else resolve(JSON.parse(text));
      });
      res.on('error', reject);
    });
    req.on('timeout', () => req.destroy(new Error(`${method} ${url.pathname}: no answer in 5 s`)));
    req.on('error', reject);
    req.end(body === undefined ? undefined : JSON.stringify(body));
  });
  return { namespace, request };
}

// k8s — the pod notes its readyAt on itself and reads the Job's pods until every completion
// index carries one. Failed pods are left out: their index is still awaited (and times out).
function k8sBarrier({ count }, env) {
  const api = kubeApi(env);
  const pods = `/api/v1/namespaces/${encodeURIComponent(api.namespace)}/pods`;
  const self = `${pods}/${encodeURIComponent(env.POD_NAME || env.HOSTNAME)}`;
  let job = env.KESH_JOB_NAME;
  let missing = [];
  let readyAtToSend = null;
  return {
    pollMs: Number(env.KESH_K8S_POLL_MS) || 500,
    announce(readyAt) {
      readyAtToSend = readyAt;
    },
    async poll() {
      // The patch is retried with each poll until it went through.
      if (readyAtToSend !== null) {
        const pod = await api.request('PATCH', self, { metadata: { annotations: { [kReadyAnnotation]: String(readyAtToSend) } } });
        readyAtToSend = null;
        job = job || pod.metadata?.labels?.[kJobLabel];
      }
      const list = await api.request('GET', `${pods}?labelSelector=${encodeURIComponent(`${kJobLabel}=${job}`)}`);
      const readyAt = new Map();
      for (const pod of list.items || []) {
        if (pod.status?.phase === 'Failed') continue;
        const annotations = pod.metadata?.annotations || {};
        const index = Number(annotations[kIndexAnnotation]);
        const at = Number(annotations[kReadyAnnotation]);
        if (annotations[kReadyAnnotation] !== undefined && Number.isInteger(index) && Number.isFinite(at)) {
          readyAt.set(index, Math.max(at, readyAt.get(index) ?? at));
        }
      }
      missing = [];
      for (let i = 0; i < count; i++) if (!readyAt.has(i)) missing.push(i);
      return missing.length === 0 ? [...readyAt.values()] : null;
    },
    waiting: () => `shard${missing.length > 1 ? 's' : ''} ${missing.join(', ') || '?'} of job ${job} never became ready`,
  };
}

// "file:DIR", "k8s" or "at:EPOCH_MS". arrive(readyAt) settles with T, or rejects with a
// BarrierError when not every shard arrives within timeoutMs, or when this shard learns T more
// than a moment after it (it must not start late and alone).
function createBarrier(spec, { runId, index, count, leadMs = 2000, timeoutMs, env = process.env }) {
  let backend;
  if (spec.startsWith('file:') && spec.length > 5) backend = fileBarrier(spec.slice(5), { runId, index, count });
  else if (spec === 'k8s') backend = k8sBarrier({ count }, env);
  else if (/^at:\d+$/.test(spec)) backend = { fixed: Number(spec.slice(3)) };
  else throw new Error(`--barrier must be file:DIR, k8s or at:EPOCH_MS, not ${JSON.stringify(spec)}`);
  return {
    async arrive(readyAt, { signal } = {}) {
      let T = backend.fixed;
      if (T === undefined) {
        backend.announce(readyAt);
        const readyAts = await pollUntilAll(() => backend.poll(), {
          deadline: readyAt + timeoutMs, pollMs: backend.pollMs, what: backend.waiting, signal,
        });
        T = Math.max(...readyAts) + leadMs;
      }
      const late = Date.now() - T;
      if (late > kLateToleranceMs) throw new BarrierError(`too late for the start: ${late} ms after it`);
      return T;
    },
  };
}

module.exports = { createBarrier, BarrierError, kubeApi, kReadyAnnotation, kIndexAnnotation, kJobLabel };
