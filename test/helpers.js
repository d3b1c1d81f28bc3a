'use strict';
// Each scenario runs in a node process of its own: the logger's state is process-wide and
// one-way, and an exit must be observed from outside.
const { spawn, spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const modulePath = path.join(__dirname, '..');

// What every scenario's child has: the add-on as `k`, `sleep(ms)`, and `until(test, what, ms)`
// that polls `test` every 10 ms and throws naming `what` once `ms` have passed.
const childPrelude = `const k = require(${JSON.stringify(modulePath)});
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const until = async (test, what = 'the awaited event', ms = 5000) => {
  for (const end = Date.now() + ms; !test();) {
    if (Date.now() > end) throw new Error('timed out waiting for ' + what);
    await sleep(10);
  }
};
`;

function scenario(body, { timeout = 30000, env = {} } = {}) {
  const code = `${childPrelude}${body}`;
  const r = spawnSync(process.execPath, ['-e', code], { encoding: 'utf8', timeout, env: { ...process.env, ...env } });
  return { status: r.status, signal: r.signal, stdout: r.stdout, stderr: r.stderr };
}

function scriptDir(files) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-test-'));
  for (const [name, text] of Object.entries(files)) {
    fs.mkdirSync(path.dirname(path.join(dir, name)), { recursive: true });
    fs.writeFileSync(path.join(dir, name), text);
  }
  return dir;
}

module.exports = { scenario, scriptDir, modulePath, childPrelude };

// Starts one Vuser of `script`, sends `calls` ([name, param] or a number of milliseconds to
// wait) `gap` ms apart, stops it, and returns the child's stdout and the log lines it saw at
// `level`. With `pelmare`, a stand-in service runs in the child and the Vuser's args carry its
// `port`.
function driveVuser(script, calls, { gap = 30, args = {}, pelmare = false, level = 'debug' } = {}) {
  const r = scenario(`
    const lines = [];
    k.onLogMessage((l, lv) => lines.push(lv + ' ' + l));
    k.setLogLevel(${JSON.stringify(level)});
    (async () => {
      const service = ${pelmare} ? await require(${JSON.stringify(path.join(modulePath, 'tools', 'pelmare'))}).start() : null;
      const args = { ...${JSON.stringify(args)}, ...(service ? { port: service.port } : {}) };
      k.createKeshThread(1, ${JSON.stringify(script)}, JSON.stringify(args));
      console.log(await k.startKeshThread(1).catch((e) => e));
      for (const call of ${JSON.stringify(calls)}) {
        if (typeof call === 'number') await sleep(call);
        else { k.runFunctionFromScript(1, ...call); await sleep(${gap}); }
      }
      k.stopKeshThread(1);
      await sleep(20);
      k.destroyKeshThreads();
      if (service) await service.close();
      console.log('LINES' + JSON.stringify(lines));
    })();`);
  const match = /LINES(.*)\n/.exec(r.stdout);
  return { ...r, lines: match ? JSON.parse(match[1]) : [] };
}

module.exports.driveVuser = driveVuser;

// Starts kesh-run; `exited` settles with { code, signal, stdout, stderr }, `waitFor(re)` when stdout matches.
function startRunner(args, { env = process.env } = {}) {
  const child = spawn(process.execPath, [path.join(modulePath, 'bin', 'kesh-run.js'), ...args], { cwd: modulePath, env, stdio: ['ignore', 'pipe', 'pipe'] });
  let stdout = '';
  let stderr = '';
  child.stdout.on('data', (chunk) => { stdout += chunk; });
  child.stderr.on('data', (chunk) => { stderr += chunk; });
  const exited = new Promise((resolve) => child.on('close', (code, signal) => resolve({ code, signal, stdout, stderr })));
  const waitFor = async (pattern, deadlineMs = 15000) => {
    const deadline = Date.now() + deadlineMs;
    while (!pattern.test(stdout)) {
      if (Date.now() > deadline) throw new Error(`no ${pattern} in:\n${stdout}\n${stderr}`);
      if (child.exitCode !== null || child.signalCode !== null) throw new Error(`exited before ${pattern}:\n${stdout}\n${stderr}`);
      await new Promise((resolve) => setTimeout(resolve, 20));
    }
  };
  return { child, exited, waitFor };
}

module.exports.startRunner = startRunner;
