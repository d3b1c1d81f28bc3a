'use strict';
// A result as lines of a container's log (`--json -`): container runtimes split log lines
// longer than a few KiB, and a log can lose or mangle a piece, so the result travels gzipped in
// numbered pieces, each with its own checksum, each line at most 4 KiB:
//   kesh-result <run id> <shard index> <n>/<count> <sha256 of the piece, 16 hex> <base64 piece>
const crypto = require('node:crypto');
const zlib = require('node:zlib');
const { readResult } = require('./resultFormat');

const kMarker = 'kesh-result';
const kMaxLine = 4096;
const kLinePattern = /kesh-result (\S+) (\d+) (\d+)\/(\d+) ([0-9a-f]{16}) ([A-Za-z0-9+/=]+)\s*$/;

const sum = (text) => crypto.createHash('sha256').update(text).digest('hex').slice(0, 16);

function encode(result) {
  const payload = zlib.gzipSync(JSON.stringify(result)).toString('base64');
  const runId = encodeURIComponent(result.runId);
  const header = `${kMarker} ${runId} ${result.shard.index} 0000000/0000000 ${'0'.repeat(16)} `;
  const size = kMaxLine - 1 - header.length; // the newline
  if (size < 256) throw new Error('the run id is too long for result lines');
  const pieces = [];
  for (let at = 0; at < payload.length; at += size) pieces.push(payload.slice(at, at + size));
  return pieces.map((piece, i) => `${kMarker} ${runId} ${result.shard.index} ${i + 1}/${pieces.length} ${sum(piece)} ${piece}`);
}

// The results in `text` (a log, with any prefix before the marker). `source` (a pod) names
// where a problem lies. Throws on a piece whose checksum fails, and on a result with pieces
// missing.
function decode(text, source = 'log') {
  const groups = new Map(); // "runId index" -> { count, pieces: Map(n -> piece) }
  for (const line of String(text).split('\n')) {
    if (!line.includes(kMarker)) continue;
    const match = kLinePattern.exec(line);
    if (!match) throw new Error(`${source}: a result line is cut or mangled: ${line.slice(0, 80)}...`);
    const [, runId, index, n, count, checksum, piece] = match;
    const key = `${decodeURIComponent(runId)} shard ${index}`;
    if (sum(piece) !== checksum) throw new Error(`${source}: piece ${n}/${count} of run ${key} is corrupted (checksum)`);
    if (!groups.has(key)) groups.set(key, { count: Number(count), pieces: new Map() });
    groups.get(key).pieces.set(Number(n), piece);
  }
  return [...groups].map(([key, { count, pieces }]) => {
    const missing = [];
    for (let n = 1; n <= count; n++) if (!pieces.has(n)) missing.push(n);
    if (missing.length) throw new Error(`${source}: run ${key} lacks piece${missing.length > 1 ? 's' : ''} ${missing.join(', ')} of ${count}`);
    const payload = Array.from({ length: count }, (_, i) => pieces.get(i + 1)).join('');
    return readResult(zlib.gunzipSync(Buffer.from(payload, 'base64')).toString('utf8'), `${source} (run ${key})`);
  });
}

module.exports = { encode, decode, kMaxLine };
