'use strict';
// kesh-run report: one HTML page from a run's result, or from the shard results of one run
// (merged as kesh-run merge merges them). Exit 0 when the page is written, 2 on a bad option,
// 4 when the files are not a result or not the shards of one run (also with --allow-partial,
// which still writes the page of the shards that are there), 1 when the page cannot be written.
const fs = require('node:fs');
const { readResults, resultCommandArgs } = require('../merge');
const { buildReport } = require('./index');

const usage = `usage: kesh-run report RESULT.json... --out report.html [--allow-partial]
  --out FILE        the HTML page to write: one file, no request to any host when opened
  --allow-partial   report the shards that are there, listing the missing ones (still exit 4)`;

function main(argv) {
  const args = resultCommandArgs(argv, {
    command: 'report',
    usage,
    options: { out: { type: 'string', short: 'o' } },
    check: (values) => {
      if (values.out === undefined) throw new Error('--out FILE is needed');
    },
  });
  if (args === null) return;
  const { values, files } = args;

  const result = readResults(files, { allowPartial: values['allow-partial'], command: 'report', mergeOne: false });
  if (result === null) return;
  let html;
  try {
    html = buildReport(result);
  } catch (err) {
    // Parts of a result that only the page reads, e.g. a second's histogram.
    console.error(`kesh-run report: ${err.message}`);
    process.exitCode = 4;
    return;
  }
  try {
    fs.writeFileSync(values.out, html);
  } catch (err) {
    console.error(`kesh-run report: cannot write the page: ${err.message}`);
    process.exitCode = 1;
    return;
  }
  const { missingShards = [] } = result;
  console.log(`kesh-run report: ${values.out}` +
    (missingShards.length ? ` (shards missing: ${missingShards.join(', ')})` : ''));
  process.exitCode = missingShards.length > 0 ? 4 : 0;
}

module.exports = { main, usage };
