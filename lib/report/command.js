'use strict';
// kesh-run report: one HTML page from a run's result, or from the shard results of one run
// (merged as kesh-run merge merges them). Exit 0 when the page is written, 2 on a bad option,
// 4 when the files are not a result or not the shards of one run (also with --allow-partial,
// which still writes the page of the shards that are there), 1 when the page cannot be written.
const fs = require('node:fs');
const { parseArgs } = require('node:util');
const { MergeError } = require('../resultFormat');
const { reportFromTexts } = require('./index');

const usage = `usage: kesh-run report RESULT.json... --out report.html [--allow-partial]
  --out FILE        the HTML page to write: one file, no request to any host when opened
  --allow-partial   report the shards that are there, listing the missing ones (still exit 4)`;

function main(argv) {
  let values;
  let files;
  try {
    ({ values, positionals: files } = parseArgs({
      args: argv,
      allowPositionals: true,
      options: {
        out: { type: 'string', short: 'o' },
        'allow-partial': { type: 'boolean', default: false },
        help: { type: 'boolean', short: 'h' },
      },
    }));
    if (values.help) {
      console.log(usage);
      return;
    }
    if (files.length === 0) throw new Error('no result files');
    if (values.out === undefined) throw new Error('--out FILE is needed');
  } catch (err) {
    console.error(`kesh-run report: ${err.message}\n${usage}`);
    process.exitCode = 2;
    return;
  }

  let report;
  try {
    const texts = files.map((name) => ({ name, text: fs.readFileSync(name, 'utf8') }));
    report = reportFromTexts(texts, { allowPartial: values['allow-partial'] });
  } catch (err) {
    const problems = err instanceof MergeError ? err.problems : [err.message];
    for (const problem of problems) console.error(`kesh-run report: ${problem}`);
    process.exitCode = 4;
    return;
  }
  try {
    fs.writeFileSync(values.out, report.html);
  } catch (err) {
    console.error(`kesh-run report: cannot write the page: ${err.message}`);
    process.exitCode = 1;
    return;
  }
  const { missingShards = [] } = report.result;
  console.log(`kesh-run report: ${values.out}` +
    (missingShards.length ? ` (shards missing: ${missingShards.join(', ')})` : ''));
  process.exitCode = missingShards.length > 0 ? 4 : 0;
}

module.exports = { main, usage };
