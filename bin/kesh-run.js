#!/usr/bin/env node
// Starts Vusers of one script, prints every log line, and stops them all cleanly.
'use strict';
const path = require('node:path');
const { parseArgs } = require('node:util');

const usage = `usage: kesh-run [options] <script.js>
  --vusers N        Vusers to start (default 3)
  --first-id N      id of the first Vuser (default 1)
  --args JSON       argument text given to every Vuser (default {})
  --seconds S       how long they run once started (default 1)
  --log-level L     error, warning, info or debug (default info)
  --run NAME        script function that every Vuser runs while they run
  --param TEXT      parameter text of that function (JSON or plain text)
  --every MS        how often it runs (default 250)`;

function fail(message) {
  console.error(`kesh-run: ${message}\n${usage}`);
  process.exit(2);
}

let options;
try {
  options = parseArgs({
    allowPositionals: true,
    options: {
      vusers: { type: 'string', default: '3' },
      'first-id': { type: 'string', default: '1' },
      args: { type: 'string', default: '{}' },
      seconds: { type: 'string', default: '1' },
      'log-level': { type: 'string', default: 'info' },
      run: { type: 'string' },
      param: { type: 'string', default: '' },
      every: { type: 'string', default: '250' },
      help: { type: 'boolean', short: 'h' },
    },
  });
} catch (e) {
  fail(e.message);
}
const { values, positionals } = options;
if (values.help) {
  console.log(usage);
  process.exit(0);
}
if (positionals.length !== 1) fail('expected exactly one script');
const count = Number(values.vusers);
const firstId = Number(values['first-id']);
const seconds = Number(values.seconds);
if (!Number.isInteger(count) || count < 1) fail('--vusers must be a positive integer');
if (!Number.isInteger(firstId) || firstId < 0 || firstId + count > 0xffffffff) {
  fail('--first-id must leave room for the Vuser ids below 4294967295');
}
if (!(seconds >= 0)) fail('--seconds must be a number of seconds');
const every = Number(values.every);
if (!(every > 0)) fail('--every must be a positive number of milliseconds');

const kesh = require(path.join(__dirname, '..'));
kesh.onLogMessage((line, level) => console.log(`[${level}] ${line}`));
kesh.setLogLevel(values['log-level']);

const ids = Array.from({ length: count }, (_, i) => firstId + i);
try {
  for (const id of ids) kesh.createKeshThread(id, positionals[0], values.args);
} catch (e) {
  console.error(`kesh-run: ${e.message}`);
  kesh.destroyKeshThreads();
  process.exit(1);
}

Promise.allSettled(ids.map((id) => kesh.startKeshThread(id))).then((results) => {
  const failed = results.filter((r) => r.status === 'rejected');
  for (const r of failed) console.error(`kesh-run: ${r.reason}`);
  console.log(`kesh-run: ${results.length - failed.length} of ${ids.length} Vusers started`);
  const runs = values.run === undefined ? null : setInterval(() => {
    for (const id of ids) kesh.runFunctionFromScript(id, values.run, values.param);
  }, every);
  setTimeout(() => {
    clearInterval(runs);
    for (const id of ids) kesh.stopKeshThread(id);
    console.log(`kesh-run: ${ids.length} Vusers stopped`);
    // Lines logged while stopping reach the callback on the next turn.
    setImmediate(() => {
      kesh.destroyKeshThreads();
      process.exitCode = failed.length === 0 ? 0 : 1;
    });
  }, seconds * 1000);
});
