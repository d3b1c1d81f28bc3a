'use strict';
// Which part of a run this process is: its shard index and count, and the Vuser ids it hosts.
const crypto = require('node:crypto');

// Ids [first + floor(i*V/N), first + floor((i+1)*V/N)): disjoint, covering [first, first+V),
// sizes within one of each other. Exact for any V and first below 2^32 (products stay far below
// 2^53).
function shardIds(first, vusers, index, count) {
  const from = Math.floor((index * vusers) / count);
  const to = Math.floor(((index + 1) * vusers) / count);
  return { first: first + from, count: to - from };
}

const kIntPattern = /^\d+$/;

// Index from --shard-index, KESH_SHARD_INDEX or JOB_COMPLETION_INDEX (an Indexed Job's pod);
// count from --shard-count or KESH_SHARD_COUNT; run id from --run-id or KESH_RUN_ID. Returns
// null without any shard setting: a single run. Throws on settings that do not fit.
function shardOf({ index, count, runId }, env = process.env) {
  const indexText = index ?? env.KESH_SHARD_INDEX ?? env.JOB_COMPLETION_INDEX;
  const countText = count ?? env.KESH_SHARD_COUNT;
  const id = runId ?? env.KESH_RUN_ID;
  if (indexText === undefined && countText === undefined) return null;
  if (countText === undefined || !kIntPattern.test(countText) || Number(countText) < 1) {
    throw new Error('a shard needs --shard-count (or KESH_SHARD_COUNT), a positive integer');
  }
  const shardCount = Number(countText);
  if (indexText === undefined || !kIntPattern.test(indexText) || Number(indexText) >= shardCount) {
    throw new Error(`the shard index (--shard-index, KESH_SHARD_INDEX or JOB_COMPLETION_INDEX) must be 0..${shardCount - 1}`);
  }
  if (shardCount > 1 && !id) throw new Error('the shards of one run need its id: --run-id or KESH_RUN_ID');
  return { index: Number(indexText), count: shardCount, runId: id || newRunId() };
}

function newRunId() {
  return `run-${new Date().toISOString().replace(/[-:]|\.\d+Z$/g, '').toLowerCase()}-${crypto.randomBytes(3).toString('hex')}`;
}

module.exports = { shardIds, shardOf, newRunId };
