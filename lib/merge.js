'use strict';
// kesh-run merge: the shard results of one run added up into one result, its summary printed,
// thresholds checked on the merged figures. Exit 0 when the merged run passed, 1 when it or a
// threshold failed, 2 on a bad option, 4 when the files are not the shards of one run, each
// once (also with --allow-partial, which merges what is there).
const fs = require('node:fs');
const { parseArgs } = require('node:util');
const { readResult, mergeResults, checkThresholds, parseThreshold, MergeError } = require('./resultFormat');
const { summaryText } = require('./results');

const usage = `usage: kesh-run merge FILE... [--json OUT] [--allow-partial] [--threshold EXPR]...
  --json OUT        write the merged result (kesh-result/1) to OUT
  --allow-partial   merge the shards that are there, listing the missing ones (still exit 4)
  --threshold EXPR  a bound on the merged figures, e.g. p99<250ms, errors<1%, rps>=100 (repeatable)`;

// The results in `files` merged as the shards of one run (with `mergeOne` false, a single file is
// taken as it is). On a file that is no result, or shards that are not one run's, each problem is
// printed under `command`, the exit code is 4, and the answer is null.
function readResults(files, { allowPartial = false, command, mergeOne = true }) {
  try {
    const results = files.map((file) => readResult(fs.readFileSync(file, 'utf8'), file));
    return results.length === 1 && !mergeOne ? results[0] : mergeResults(results, { allowPartial, names: files });
  } catch (err) {
    const problems = err instanceof MergeError ? err.problems : [err.message];
    for (const problem of problems) console.error(`kesh-run ${command}: ${problem}`);
    process.exitCode = 4;
    return null;
  }
}

// The options and result files of a command that reads results, with --allow-partial and --help
// beside `options`; `check(values)` throws on what parseArgs cannot see. Null when the command
// has nothing more to do: help printed, or a bad option told (exit code 2).
function resultCommandArgs(argv, { command, usage: text, options, check = () => {} }) {
  try {
    const { values, positionals: files } = parseArgs({
      args: argv,
      allowPositionals: true,
      options: {
        ...options,
        'allow-partial': { type: 'boolean', default: false },
        help: { type: 'boolean', short: 'h' },
      },
    });
    if (values.help) {
      console.log(text);
      return null;
    }
    if (files.length === 0) throw new Error('no result files');
    check(values);
    return { values, files };
  } catch (err) {
    console.error(`kesh-run ${command}: ${err.message}\n${text}`);
    process.exitCode = 2;
    return null;
  }
}

function main(argv) {
  const args = resultCommandArgs(argv, {
    command: 'merge',
    usage,
    options: { json: { type: 'string' }, threshold: { type: 'string', multiple: true, default: [] } },
    check: (values) => values.threshold.forEach(parseThreshold),
  });
  if (args === null) return;
  const { values, files } = args;

  const merged = readResults(files, { allowPartial: values['allow-partial'], command: 'merge' });
  if (merged === null) return;
  merged.thresholds = checkThresholds(merged, values.threshold);
  const failedThresholds = merged.thresholds.filter((t) => !t.passed).map((t) => `threshold ${t.expr} not met`);
  merged.problems.push(...failedThresholds);
  merged.passed = merged.passed && failedThresholds.length === 0;
  const verdict = merged.passed ? 'passed' : `failed: ${merged.problems.join('; ')}`;
  console.log(summaryText(merged, verdict, { title: `merge of ${files.length} shard results, run ${merged.runId}` }));
  if (values.json !== undefined) fs.writeFileSync(values.json, `${JSON.stringify(merged)}\n`);
  process.exitCode = merged.missingShards.length > 0 ? 4 : merged.passed ? 0 : 1;
}

module.exports = { main, readResults, resultCommandArgs };
