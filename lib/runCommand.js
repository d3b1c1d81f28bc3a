'use strict';
// kesh-run's run command: Vusers of one script against the service, a progress line while they
// run, and a summary (and JSON) of what they measured; alone, or as one shard of a larger run.
// Exit code 0 only when the run passed, 3 when a shard missed the common start.
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { parseArgs } = require('node:util');
const { LoadRun, judge, levelNames, levelRank, resolveService, defaultScript } = require('./runner');
const { statusLine, summaryText } = require('./results');
const { shardIds, shardOf, newRunId } = require('./shard');
const { createBarrier } = require('./barrier');
const resultLines = require('./resultLines');

const usage = `usage: kesh-run [options] [script.js]      (default script: examples/load.js)
  --vusers N        Vusers to start (default 10)
  --first-id N      id of the first Vuser (default 1)
  --seconds S       how long the load runs once every Vuser has started (default 10)
  --ramp S          start the Vusers evenly over S seconds (default 0: all at once)
  --service H:P     the service to load (default: the stand-in, started here on a free port)
  --args JSON       object given to every Vuser as \`args\`; the runner adds \`service\` {host, port}
  --max-errors P    highest error rate, in percent of requests, that still passes (default 0)
  --json FILE       write the result (kesh-result/1) to FILE; "-": as checksummed lines on stdout
  --log-level L     log lines shown: error, warning, info, debug or trace (default info)
  --log-file FILE   keep every log line, whatever the level, in FILE
  --quiet           no progress line
  --run NAME        script function that every Vuser runs while they run
  --param TEXT      parameter text of that function (JSON or plain text)
  --every MS        how often it runs (default 250)
 shards of one run (see docs/kubernetes.md):
  --shard-index I   this shard's index (else KESH_SHARD_INDEX, else JOB_COMPLETION_INDEX)
  --shard-count N   how many shards (else KESH_SHARD_COUNT); --vusers and --first-id are the whole run's
  --run-id ID       the run's id, the same for every shard (else KESH_RUN_ID)
  --barrier B       common start: file:DIR, k8s or at:EPOCH_MS
  --barrier-timeout S  how long to wait there for the other shards (default 300)
  --barrier-lead S  the start is this long after the last shard is ready (default 2)
 other commands:
  kesh-run merge FILE... [--json OUT] [--allow-partial] [--threshold EXPR]...
  kesh-run k8s manifest --shards N [options]    kesh-run k8s collect --job NAME`;

function fail(message) {
  console.error(`kesh-run: ${message}\n${usage}`);
  process.exit(2);
}

async function main(argv) {
  let options;
  try {
    options = parseArgs({
      args: argv,
      allowPositionals: true,
      options: {
        vusers: { type: 'string', default: '10' },
        'first-id': { type: 'string', default: '1' },
        seconds: { type: 'string', default: '10' },
        ramp: { type: 'string', default: '0' },
        service: { type: 'string' },
        args: { type: 'string', default: '{}' },
        'max-errors': { type: 'string', default: '0' },
        json: { type: 'string' },
        'log-level': { type: 'string', default: 'info' },
        'log-file': { type: 'string' },
        quiet: { type: 'boolean', default: false },
        run: { type: 'string' },
        param: { type: 'string', default: '' },
        every: { type: 'string', default: '250' },
        'shard-index': { type: 'string' },
        'shard-count': { type: 'string' },
        'run-id': { type: 'string' },
        barrier: { type: 'string' },
        'barrier-timeout': { type: 'string', default: '300' },
        'barrier-lead': { type: 'string', default: '2' },
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
  if (positionals.length > 1) fail('expected at most one script');
  const script = positionals.length ? positionals[0] : path.relative(process.cwd(), defaultScript) || defaultScript;
  const count = Number(values.vusers);
  const firstId = Number(values['first-id']);
  const seconds = Number(values.seconds);
  const ramp = Number(values.ramp);
  const every = Number(values.every);
  const maxErrors = Number(String(values['max-errors']).replace(/%$/, ''));
  if (!Number.isInteger(count) || count < 1) fail('--vusers must be a positive integer');
  if (!Number.isInteger(firstId) || firstId < 0 || firstId + count > 0xffffffff) {
    fail('--first-id must leave room for the Vuser ids below 4294967295');
  }
  if (!(seconds >= 0)) fail('--seconds must be a number of seconds');
  if (!(ramp >= 0)) fail('--ramp must be a number of seconds');
  if (!(every > 0)) fail('--every must be a positive number of milliseconds');
  if (!(maxErrors >= 0 && maxErrors <= 100)) fail('--max-errors must be a percentage from 0 to 100');
  const shownRank = levelNames.indexOf(values['log-level']);
  if (shownRank === -1) fail(`--log-level must be one of ${levelNames.join(', ')}`);
  let args;
  try {
    args = JSON.parse(values.args);
  } catch (e) {
    fail(`--args is no JSON: ${e.message}`);
  }
  if (args === null || typeof args !== 'object' || Array.isArray(args)) fail('--args must be a JSON object');

  // A shard hosts its part of the run's ids; a single run all of them.
  let shard = null;
  try {
    shard = shardOf({ index: values['shard-index'], count: values['shard-count'], runId: values['run-id'] });
  } catch (err) {
    fail(err.message);
  }
  const runId = shard?.runId ?? values['run-id'] ?? process.env.KESH_RUN_ID ?? newRunId();
  const ids = shard ? shardIds(firstId, count, shard.index, shard.count) : { first: firstId, count };
  const barrierTimeout = Number(values['barrier-timeout']);
  const barrierLead = Number(values['barrier-lead']);
  if (!(barrierTimeout > 0)) fail('--barrier-timeout must be a positive number of seconds');
  if (!(barrierLead >= 0)) fail('--barrier-lead must be a number of seconds');
  if (shard && shard.count > 1 && values.barrier === undefined) fail('shards of one run need --barrier to start together');
  // Shards start every Vuser before the barrier, so that start-up stays outside the window.
  if (values.barrier !== undefined && ramp > 0) fail('--ramp does not go with --barrier');
  let barrier = null;
  if (values.barrier !== undefined) {
    try {
      barrier = createBarrier(values.barrier, {
        runId, index: shard?.index ?? 0, count: shard?.count ?? 1, leadMs: barrierLead * 1000, timeoutMs: barrierTimeout * 1000,
      });
    } catch (err) {
      fail(err.message);
    }
  }
  // What the merge checks: the same script in every shard. A missing file fails the run later.
  let scriptSha256 = null;
  try {
    scriptSha256 = crypto.createHash('sha256').update(fs.readFileSync(script)).digest('hex');
  } catch {}
  const toStdout = values.json === '-';

  // Output: log lines and the summary on standard output; the progress line on it too, redrawn in
  // place on a terminal and printed every few seconds on a pipe.
  const out = process.stdout;
  const tty = out.isTTY === true;
  let statusShown = false;
  function clearStatus() {
    if (!statusShown) return;
    out.write('\r\x1b[K');
    statusShown = false;
  }
  function print(text) {
    clearStatus();
    out.write(`${text}\n`);
  }

  // The log file takes every line, in chunks; what is left is written at exit, however it comes.
  let logFd = null;
  let logChunks = [];
  let logBytes = 0;
  function flushLog() {
    if (logFd === null || logChunks.length === 0) return;
    fs.writeSync(logFd, logChunks.join(''));
    logChunks = [];
    logBytes = 0;
  }
  function keep(level, text) {
    if (logFd === null) return;
    const entry = `${new Date().toISOString()} [${level}] ${text}\n`;
    logChunks.push(entry);
    logBytes += entry.length;
    if (logBytes > 1 << 16) flushLog();
  }
  if (values['log-file'] !== undefined) {
    try {
      logFd = fs.openSync(values['log-file'], 'w');
    } catch (e) {
      fail(`cannot open the log file: ${e.message}`);
    }
    process.on('exit', flushLog);
  }

  function say(text) {
    keep('Info', `kesh-run - ${text}`);
    print(`kesh-run: ${text}`);
  }

  function onLine(level, text) {
    keep(level, text);
    if (levelRank(level) <= shownRank) print(`[${level}] ${text}`);
  }

  async function run() {
    let service = null;
    try {
      if (values.service !== undefined) service = await resolveService(values.service);
    } catch (err) {
      fail(err.message);
    }
    let progress = null;
    const stopProgress = () => {
      clearInterval(progress);
      progress = null;
      clearStatus();
    };
    const run = new LoadRun({
      script, vusers: ids.count, firstId: ids.first, args, seconds, rampSeconds: ramp, service,
      runId, shard: { index: shard?.index ?? 0, count: shard?.count ?? 1 }, scriptSha256, barrier,
      // The add-on is asked for what is shown, or for everything when a file keeps it.
      addonLogLevel: logFd !== null ? 'debug' : levelNames[Math.min(shownRank, 3)],
      serviceLog: logFd !== null || shownRank === 4,
      run: values.run, param: values.param, everyMs: every,
    }, {
      onLine,
      onStopping: () => {
        stopProgress();
        process.off('SIGINT', interrupt);
        process.off('SIGTERM', interrupt);
      },
      onBarrier: () => say(`shard ${shard?.index ?? 0} of ${shard?.count ?? 1} (run ${runId}, ` +
        `${ids.count ? `Vuser ids ${ids.first}..${ids.first + ids.count - 1}` : 'no Vusers'}) waiting at the barrier ${values.barrier}`),
      onRelease: (T) => say(`released for the start at ${new Date(T).toISOString()}, ${Date.now() - T} ms after it`),
    });

    // The first Ctrl-C stops the run. The stop takes our handlers away, so that the next one
    // ends the process at once, even while a Vuser that never yields holds the stop.
    const interrupt = (signal) => {
      say(`${signal}: stopping the Vusers (Ctrl-C again quits at once)`);
      run.stop({ interrupted: true });
    };
    process.on('SIGINT', interrupt);
    process.on('SIGTERM', interrupt);

    try {
      await run.start();
      const { service: where } = run.result;
      if (!run.stopPromise) {
        say(`${ids.count} Vusers of ${script} against ${where.embedded ? 'the stand-in service on ' : ''}` +
          `${where.host}:${where.port}, ${ramp ? `ramp ${ramp} s, then ` : ''}${seconds} s`);
      }
      if (!values.quiet && !run.stopPromise) {
        const draw = () => {
          flushLog();
          if (tty) {
            // Cut to the terminal's width: a wrapped line could not be redrawn in place.
            out.write(`\r\x1b[K${statusLine(run.result).slice(0, Math.max(20, (out.columns || 200) - 1))}`);
            statusShown = true;
          } else {
            print(statusLine(run.result));
          }
        };
        progress = setInterval(draw, tty ? 250 : 2000);
      }
    } catch (err) {
      await run.stop();
      print(`kesh-run: ${err.message}`);
      process.exitCode = 1;
      return;
    }

    const result = await run.finished;
    // A shard that missed the start sends nothing: its figures would not belong to the run.
    if (run.barrierError) {
      say(run.barrierError.message);
      flushLog();
      process.exitCode = 3;
      return;
    }
    const verdict = judge(result, { maxErrorsPercent: maxErrors });
    const json = { ...result.toJSON({ passed: verdict.passed, problems: verdict.problems }), maxErrorsPercent: maxErrors };
    const summary = summaryText(json, verdict.passed ? 'passed' : `failed: ${verdict.problems.join('; ')}`);
    keep('Info', summary);
    print(summary);
    if (toStdout) {
      for (const line of resultLines.encode(json)) print(line);
    } else if (values.json !== undefined) {
      try {
        fs.writeFileSync(values.json, `${JSON.stringify(json)}\n`);
      } catch (err) {
        print(`kesh-run: cannot write the JSON: ${err.message}`);
        process.exitCode = 1;
        return;
      }
    }
    flushLog();
    process.exitCode = result.interrupted ? 130 : verdict.passed ? 0 : 1;
  }

  await run().catch((err) => {
    print(`kesh-run: ${err.stack || err.message}`);
    process.exitCode = 1;
  });
}

module.exports = { main };
