#!/usr/bin/env node
// Long lines from the service to one Vuser: MB/s (10^6 bytes a second) for lines of 1, 16 and
// 64 MiB, sent by a service socket on the loopback (on this process's main thread) to a Vuser,
// which asks for the next line once it has the last one. Two kinds of line: a bare-socket line
// that the script gets as text (framing, header reading and the script's string), and an answer
// that it gets parsed (the same, plus JSON.parse). With linear framing a line's MB/s does not
// fall as lines grow; the median of the rounds is shown.
//   node bench/longLines.js [--sizes 1,16,64] [--mib 256] [--rounds 3]
'use strict';
const net = require('node:net');
const path = require('node:path');
const fs = require('node:fs');
const os = require('node:os');
const { parseArgs } = require('node:util');

const { values } = parseArgs({
  options: {
    sizes: { type: 'string', default: '1,16,64' },
    mib: { type: 'string', default: '256' }, // bytes of each kind, size and round
    rounds: { type: 'string', default: '3' },
  },
});
const MiB = 1024 * 1024;
const sizes = values.sizes.split(',').map((s) => Number(s) * MiB);
const rounds = Number(values.rounds);

const SCRIPT = `
_initNetworking(args.port, '127.0.0.1');
_enableRunningAsyncCallbacks();
let onSocketLine = null;
_registerNewBareSocket('big', (line) => onSocketLine(line));
let nextId = 0;
function run(param) {
  const { size, count, kind } = param;
  let left = count;
  let wrong = 0;
  const t0 = performance.now();
  const next = () => {
    if (left-- === 0) {
      keshConsole('RESULT ' + JSON.stringify({ size, kind, count, wrong, ms: performance.now() - t0 }), 'Info');
      return;
    }
    const id = ++nextId;
    const ask = JSON.stringify({ messageId: id, kind, size }) + '\\n';
    if (kind === 'socket') {
      onSocketLine = (line) => { if (line.length !== size) ++wrong; next(); };
      _sendSyncNoWait(id, ask);
    } else {
      _send(id, ask, (answer) => { if (!answer || answer.messageId !== id) ++wrong; next(); });
    }
  };
  next();
}`;

const filler = Buffer.alloc(Math.max(...sizes), 'x');

// Each request line asks for one line of `size` bytes, its end not counted.
function serve(socket) {
  let pending = '';
  socket.on('data', (data) => {
    pending += data;
    let end;
    while ((end = pending.indexOf('\n')) >= 0) {
      const { messageId, kind, size } = JSON.parse(pending.slice(0, end));
      pending = pending.slice(end + 1);
      const head = kind === 'socket'
        ? '{"messageId":-1,"socketId":"big","responseType":1}'
        : `{"messageId":${messageId},"socketId":"","responseType":0,"pad":"`;
      const tail = kind === 'socket' ? '\n' : '"}\n';
      socket.write(head);
      socket.write(filler.subarray(0, size - head.length - (tail.length - 1)));
      socket.write(tail);
    }
  });
}

const median = (xs) => [...xs].sort((a, b) => a - b)[Math.floor(xs.length / 2)];

async function main() {
  const kesh = require(path.join(__dirname, '..'));
  const results = [];
  let waiting = null;
  kesh.onLogMessage((line) => {
    const at = line.indexOf('RESULT ');
    if (at >= 0) {
      results.push(JSON.parse(line.slice(at + 7)));
      if (waiting) waiting();
    } else if (/^(Error|Warning)/.test(line) || / Error /.test(line)) {
      console.error(line);
    }
  });
  const server = net.createServer(serve);
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kesh-long-lines-'));
  fs.writeFileSync(path.join(dir, 'longLines.js'), SCRIPT);
  kesh.createKeshThread(1, path.join(dir, 'longLines.js'), JSON.stringify({ port: server.address().port }));
  await kesh.startKeshThread(1);
  const measure = async (size, count, kind) => {
    const done = new Promise((resolve) => { waiting = resolve; });
    kesh.runFunctionFromScript(1, 'run', JSON.stringify({ size, count, kind }));
    await done;
    const result = results.pop();
    if (result.wrong > 0) throw new Error(`${result.wrong} lines of ${size} bytes came wrong`);
    return (size * count) / 1e6 / (result.ms / 1000);
  };
  const kinds = ['socket', 'answer'];
  for (const kind of kinds) await measure(sizes[0], 2, kind); // warm-up
  console.log(`${os.cpus().length} cores, ${values.mib} MiB per size, kind and round, median of ${rounds} rounds`);
  console.log('line size   socket line, text   answer, parsed');
  for (const size of sizes) {
    const count = Math.max(1, Math.round((Number(values.mib) * MiB) / size));
    const figures = [];
    for (const kind of kinds) {
      const rates = [];
      for (let round = 0; round < rounds; ++round) rates.push(await measure(size, count, kind));
      figures.push(median(rates));
    }
    console.log(`${String(size / MiB).padStart(5)} MiB   ${figures[0].toFixed(0).padStart(10)} MB/s ` +
      `${figures[1].toFixed(0).padStart(12)} MB/s`);
  }
  kesh.stopKeshThread(1);
  kesh.destroyKeshThreads();
  server.close();
  fs.rmSync(dir, { recursive: true, force: true });
}

main().catch((e) => {
  console.error(e);
  process.exit(1);
});
