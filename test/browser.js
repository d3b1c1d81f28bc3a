'use strict';
// Headless Chromium for the tests, driven over the DevTools protocol, with the network shut: DNS
// resolves nothing, connections go to a closed proxy, and every request the page makes is seen
// (and failed) before it leaves. Closing leaves no browser process behind.
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const CDP = require('chrome-remote-interface');

function findBrowser() {
  if (process.env.KESH_CHROMIUM) return process.env.KESH_CHROMIUM;
  for (const name of ['chromium', 'chromium-browser']) {
    for (const dir of (process.env.PATH || '').split(path.delimiter)) {
      const file = path.join(dir, name);
      try {
        fs.accessSync(file, fs.constants.X_OK);
        return file;
      } catch {}
    }
  }
  return null;
}

function withDeadline(promise, ms, what) {
  let timer;
  const deadline = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`${what}: nothing within ${ms} ms`)), ms);
  });
  return Promise.race([promise, deadline]).finally(() => clearTimeout(timer));
}

const groupAlive = (pid) => {
  try {
    process.kill(-pid, 0);
    return true;
  } catch {
    return false;
  }
};

async function groupGone(pid, ms) {
  const deadline = Date.now() + ms;
  while (groupAlive(pid)) {
    if (Date.now() > deadline) return false;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  return true;
}

async function launch(binary) {
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-chromium-'));
  const args = [
    '--headless=new', '--disable-gpu', '--no-first-run', '--no-default-browser-check',
    '--disable-background-networking', '--disable-component-update', '--disable-sync', '--disable-extensions',
    '--proxy-server=127.0.0.1:9', '--host-resolver-rules=MAP * ~NOTFOUND',
    '--remote-debugging-port=0', `--user-data-dir=${profile}`, 'about:blank',
  ];
  // Chromium's sandbox refuses to start as root (CI runs as root).
  if (process.getuid?.() === 0) args.unshift('--no-sandbox');
  // A process group of its own, so that closing can reach every helper process it started.
  const child = spawn(binary, args, { detached: true, stdio: ['ignore', 'ignore', 'pipe'] });
  let stderr = '';
  const exited = new Promise((resolve) => child.once('exit', resolve));
  const close = async () => {
    if (child.exitCode === null && child.signalCode === null) {
      try {
        process.kill(-child.pid, 'SIGTERM');
      } catch {}
      await withDeadline(exited, 5000, 'chromium exit').catch(() => {});
    }
    // Helpers that outlive the browser process would be left running: they get a moment to go.
    if (!(await groupGone(child.pid, 3000))) {
      process.kill(-child.pid, 'SIGKILL');
      await groupGone(child.pid, 2000);
    }
    fs.rmSync(profile, { recursive: true, force: true });
    return !groupAlive(child.pid);
  };
  try {
    const port = await withDeadline(new Promise((resolve, reject) => {
      child.stderr.on('data', (chunk) => {
        stderr += chunk;
        const match = /DevTools listening on ws:\/\/[^:]+:(\d+)\//.exec(stderr);
        if (match) resolve(Number(match[1]));
      });
      child.once('exit', (code) => reject(new Error(`chromium exited (${code}): ${stderr}`)));
      child.once('error', reject);
    }), 20000, 'chromium start');
    return { port, close, pid: child.pid };
  } catch (err) {
    await close();
    throw err;
  }
}

// Opens `file` in a new tab and returns what a test looks at: `problems` (console errors and
// uncaught exceptions), `requests` (every URL asked for but the page itself), `evaluate(expr)`,
// `screenshot(png)` of the whole page, and `close()`.
async function openPage(browser, file) {
  const url = `file://${path.resolve(file)}`;
  const target = await CDP.New({ port: browser.port });
  const client = await CDP({ port: browser.port, target });
  const { Page, Runtime, Log, Network, Fetch, Emulation } = client;
  const problems = [];
  const requests = [];
  Runtime.consoleAPICalled(({ type, args }) => {
    if (type === 'error' || type === 'assert') problems.push(`console.${type}: ${args.map((a) => a.value ?? a.description).join(' ')}`);
  });
  Runtime.exceptionThrown(({ exceptionDetails: d }) => problems.push(`uncaught: ${d.exception?.description ?? d.text}`));
  Log.entryAdded(({ entry }) => {
    if (entry.level === 'error') problems.push(`${entry.source}: ${entry.text}`);
  });
  Network.requestWillBeSent(({ request }) => {
    if (request.url !== url) requests.push(request.url);
  });
  Fetch.requestPaused(({ requestId, request }) => {
    if (request.url === url) Fetch.continueRequest({ requestId }).catch(() => {});
    else Fetch.failRequest({ requestId, errorReason: 'BlockedByClient' }).catch(() => {});
  });
  await Promise.all([Runtime.enable(), Log.enable(), Network.enable(), Page.enable(), Fetch.enable({ patterns: [{ urlPattern: '*' }] })]);
  await Emulation.setDeviceMetricsOverride({ width: 1280, height: 900, deviceScaleFactor: 1, mobile: false });
  const loaded = Page.loadEventFired();
  const { errorText } = await Page.navigate({ url });
  if (errorText) throw new Error(`${url}: ${errorText}`);
  await withDeadline(loaded, 15000, `load of ${url}`);

  const evaluate = async (expression) => {
    const { result, exceptionDetails } = await Runtime.evaluate({ expression, returnByValue: true, awaitPromise: true });
    if (exceptionDetails) throw new Error(`${expression}: ${exceptionDetails.exception?.description ?? exceptionDetails.text}`);
    return result.value;
  };
  const screenshot = async (png) => {
    const height = await evaluate('document.documentElement.scrollHeight');
    await Emulation.setDeviceMetricsOverride({ width: 1280, height, deviceScaleFactor: 1, mobile: false });
    const { data } = await Page.captureScreenshot({ format: 'png' });
    fs.mkdirSync(path.dirname(png), { recursive: true });
    fs.writeFileSync(png, Buffer.from(data, 'base64'));
  };
  const close = async () => {
    await client.close();
    await CDP.Close({ port: browser.port, id: target.id });
  };
  return { problems, requests, evaluate, screenshot, close };
}

module.exports = { findBrowser, launch, openPage, withDeadline };
