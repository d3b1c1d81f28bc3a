'use strict';
// Headless Chromium over the DevTools protocol, network shut: names resolve to nothing, connections go
// to a closed proxy, every request but the page's own is listed and failed. Closing leaves no process.
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const CDP = require('chrome-remote-interface');

function findBrowser() {
  const dirs = (process.env.PATH || '').split(path.delimiter);
  return process.env.KESH_CHROMIUM || ['chromium', 'chromium-browser'].flatMap((name) => dirs.map((dir) => path.join(dir, name)))
    .find((file) => fs.existsSync(file)) || null;
}

function withDeadline(promise, ms, what) {
  let timer;
  const late = new Promise((_, reject) => { timer = setTimeout(() => reject(new Error(`${what}: not within ${ms} ms`)), ms); });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

// Whether every process of the group has gone within `ms`.
async function groupGone(pid, ms) {
  for (const deadline = Date.now() + ms; Date.now() < deadline; await new Promise((resolve) => setTimeout(resolve, 50))) {
    try { process.kill(-pid, 0); } catch { return true; }
  }
  return false;
}

async function launch(binary) {
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-chromium-'));
  const args = ['--headless=new', '--disable-gpu', '--disable-dev-shm-usage', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync', '--disable-extensions', '--proxy-server=127.0.0.1:9',
    '--host-resolver-rules=MAP * ~NOTFOUND', '--remote-debugging-port=0', `--user-data-dir=${profile}`, 'about:blank'];
  if (process.getuid() === 0) args.unshift('--no-sandbox'); // the sandbox refuses root, which CI is
  // A process group of its own, so closing reaches every helper; no sanitizer runtime preloaded into it.
  const { LD_PRELOAD, ASAN_OPTIONS, TSAN_OPTIONS, ...env } = process.env;
  const child = spawn(binary, args, { detached: true, env, stdio: ['ignore', 'ignore', 'pipe'] });
  const close = async () => {
    try { process.kill(-child.pid, 'SIGTERM'); } catch {}
    if (!(await groupGone(child.pid, 5000))) process.kill(-child.pid, 'SIGKILL');
    const gone = await groupGone(child.pid, 2000);
    fs.rmSync(profile, { recursive: true, force: true });
    return gone;
  };
  let stderr = '';
  const port = await withDeadline(new Promise((resolve, reject) => {
    child.stderr.on('data', (chunk) => {
      const match = /DevTools listening on ws:\/\/[^:]+:(\d+)\//.exec(stderr += chunk);
      if (match) resolve(Number(match[1]));
    });
    child.once('exit', (code) => reject(new Error(`chromium exited (${code}): ${stderr}`)));
  }), 20000, 'chromium start').catch(async (err) => { await close(); throw err; });
  return { port, close };
}

// Loads `file` in a new tab, evaluates `expression` there and saves a screenshot of the whole page as `png`: the
// expression's `value`, `problems` (console errors, uncaught exceptions, failed loads), `requests` (every URL but the page).
async function look(browser, file, expression, png) {
  const url = `file://${path.resolve(file)}`;
  const target = await CDP.New({ port: browser.port });
  const client = await CDP({ port: browser.port, target });
  const { Page, Runtime, Log, Fetch, Emulation } = client;
  const [problems, requests] = [[], []];
  const evaluate = async (text) => {
    const { result, exceptionDetails: d } = await Runtime.evaluate({ expression: text, returnByValue: true });
    if (d) throw new Error(`in the page: ${d.exception?.description ?? d.text}`);
    return result.value;
  };
  try {
    Runtime.consoleAPICalled(({ type, args }) => {
      if (type === 'error' || type === 'assert') problems.push(`console.${type}: ${args.map((a) => a.value ?? a.description).join(' ')}`);
    });
    Runtime.exceptionThrown(({ exceptionDetails: d }) => problems.push(`uncaught: ${d.exception?.description ?? d.text}`));
    Log.entryAdded(({ entry }) => entry.level === 'error' && problems.push(`${entry.source}: ${entry.text}`));
    Fetch.requestPaused(({ requestId, request }) => {
      if (request.url === url) return Fetch.continueRequest({ requestId }).catch(() => {});
      requests.push(request.url);
      return Fetch.failRequest({ requestId, errorReason: 'BlockedByClient' }).catch(() => {});
    });
    const size = (height) => Emulation.setDeviceMetricsOverride({ width: 1280, height, deviceScaleFactor: 1, mobile: false });
    await Promise.all([Runtime.enable(), Log.enable(), Page.enable(), Fetch.enable({ patterns: [{ urlPattern: '*' }] }), size(900)]);
    const loaded = Page.loadEventFired();
    const { errorText } = await Page.navigate({ url });
    if (errorText) throw new Error(`${url}: ${errorText}`);
    await withDeadline(loaded, 15000, `load of ${url}`);
    const value = await evaluate(expression);
    await size(await evaluate('document.documentElement.scrollHeight'));
    fs.mkdirSync(path.dirname(png), { recursive: true });
    fs.writeFileSync(png, Buffer.from((await Page.captureScreenshot({ format: 'png' })).data, 'base64'));
    return { value, problems, requests };
  } finally {
    await client.close();
    await CDP.Close({ port: browser.port, id: target.id });
  }
}

module.exports = { findBrowser, launch, look };
