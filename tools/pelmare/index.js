#!/usr/bin/env node
// Stand-in for the Pelmare service, for tests and local runs: a plain TCP server that takes
// newline-terminated JSON requests and answers with header-first JSON lines.
// The protocol is in README.md next to this file.
'use strict';
const net = require('node:net');

// Without the u flag \w is ASCII only, as the add-on's own header pattern sees it.
const kSocketIdPattern = /^-?\w+$/;
const kMaxDelayMs = 2 ** 31 - 1; // setTimeout's limit
const kMaxCount = 1000000;
const kClip = 200; // characters of a bad line shown in the log

class RequestError extends Error {}

// The three header keys must come first and in this order: the add-on looks for them by
// pattern in the first bytes of a line. JSON.stringify never emits a raw newline, so a line
// built here cannot break the framing.
function line(messageId, socketId, responseType, fields = {}) {
  let text = `{"messageId":${messageId},"socketId":${JSON.stringify(socketId)},"responseType":${responseType}`;
  for (const [key, value] of Object.entries(fields)) {
    if (value !== undefined) text += `,${JSON.stringify(key)}:${JSON.stringify(value)}`;
  }
  return `${text}}\n`;
}

function clip(text) {
  return JSON.stringify(text.length > kClip ? `${text.slice(0, kClip)}...` : text);
}

function intArg(req, name, { min = 0, max = kMaxCount, fallback } = {}) {
  const value = req[name];
  if (value === undefined && fallback !== undefined) return fallback;
  if (!Number.isInteger(value) || value < min || value > max) {
    throw new RequestError(`"${name}" must be an integer from ${min} to ${max}`);
  }
  return value;
}

function stringArg(req, name) {
  if (typeof req[name] !== 'string') throw new RequestError(`"${name}" must be a string`);
  return req[name];
}

function socketIdArg(req) {
  const id = req.socketId;
  if (typeof id !== 'string' || !kSocketIdPattern.test(id)) {
    throw new RequestError('"socketId" must be letters, digits and underscores, with an optional leading minus');
  }
  return id;
}

function stringArray(req, name) {
  const value = req[name];
  if (value === undefined) return [];
  if (!Array.isArray(value) || value.some((s) => typeof s !== 'string')) {
    throw new RequestError(`"${name}" must be an array of strings`);
  }
  return value;
}

// One accepted TCP connection: its partial input, its bare sockets and its pending timers.
class Connection {
  constructor(service, socket, number) {
    this.service = service;
    this.socket = socket;
    this.name = `#${number}`;
    this.parts = []; // bytes of the line not yet terminated
    this.sockets = new Map(); // socket id -> record; identity tells a reopened socket apart
    this.timers = new Set();
    this.ended = false;
    socket.setNoDelay(true); // so that paced writes leave as separate segments
    socket.on('data', (chunk) => this.onData(chunk));
    socket.on('error', (err) => service.trace(`${this.name} ${err.message}`));
    socket.on('close', () => {
      this.ended = true;
      this.clearTimers();
      this.sockets.clear();
      service.conns.delete(this);
      service.trace(`${this.name} closed`);
    });
  }

  // Lines are cut from bytes, not from decoded text, so that a character split between two
  // reads is decoded whole.
  onData(chunk) {
    let start = 0;
    let end;
    while ((end = chunk.indexOf(0x0a, start)) !== -1) {
      this.parts.push(chunk.subarray(start, end));
      const text = Buffer.concat(this.parts).toString('utf8');
      this.parts = [];
      start = end + 1;
      this.onLine(text);
    }
    if (start < chunk.length) this.parts.push(chunk.subarray(start));
  }

  onLine(text) {
    const { service } = this;
    let req;
    try {
      req = JSON.parse(text);
    } catch {
      service.problem(`${this.name} ignored a line that is not JSON: ${clip(text)}`);
      return;
    }
    if (req === null || typeof req !== 'object' || Array.isArray(req) || !Number.isSafeInteger(req.messageId)) {
      service.problem(`${this.name} ignored a line without an integer messageId: ${clip(text)}`);
      return;
    }
    service.requests.push(req);
    service.trace(`${this.name} request ${clip(text)}`);
    const op = Object.hasOwn(operations, req.op) ? operations[req.op] : null;
    try {
      if (!op) throw new RequestError(`unknown op ${JSON.stringify(req.op)}`);
      op.call(this, req);
    } catch (err) {
      if (!(err instanceof RequestError)) throw err;
      service.trace(`${this.name} request ${req.messageId} failed: ${err.message}`);
      this.answer(req, { error: err.message });
    }
  }

  write(bytes) {
    if (!this.ended && this.socket.writable) this.socket.write(bytes);
  }

  answer(req, fields = {}) {
    const data = req.data === undefined ? null : req.data;
    this.write(line(req.messageId, '', 0, { op: req.op, data, ...fields }));
  }

  later(ms, fn) {
    const timer = setTimeout(() => {
      this.timers.delete(timer);
      fn();
    }, ms);
    this.timers.add(timer);
  }

  // Writes piece 0 at once and each further piece intervalMs later (in the same tick when 0),
  // as long as alive() holds; then calls done.
  paced(count, pieceAt, intervalMs, alive = () => true, done = () => {}) {
    let i = 0;
    const step = () => {
      while (i < count && alive()) {
        this.write(pieceAt(i++));
        if (intervalMs > 0 && i < count) return this.later(intervalMs, step);
      }
      if (i === count) done();
    };
    step();
  }

  clearTimers() {
    for (const timer of this.timers) clearTimeout(timer);
    this.timers.clear();
  }

  end() {
    if (this.ended) return;
    this.ended = true;
    this.clearTimers();
    this.socket.end();
    this.service.trace(`${this.name} ended by request`);
  }

  openSocket(req) {
    const id = socketIdArg(req);
    const record = this.sockets.get(id);
    if (!record) throw new RequestError(`socket ${JSON.stringify(id)} is not open`);
    return { id, record };
  }
}

// Each operation runs with `this` bound to the connection; a RequestError becomes an answer
// with "error".
const operations = {
  echo(req) {
    this.answer(req);
  },

  delay(req) {
    const ms = intArg(req, 'ms', { max: kMaxDelayMs });
    this.later(ms, () => this.answer(req));
  },

  silent() {},

  many(req) {
    const count = intArg(req, 'count');
    const intervalMs = intArg(req, 'intervalMs', { max: kMaxDelayMs, fallback: 0 });
    const data = req.data === undefined ? null : req.data;
    const answerAt = (seq) => line(req.messageId, '', 0, { op: req.op, seq, data });
    if (intervalMs === 0) this.paced(1, () => Array.from({ length: count }, (_, i) => answerAt(i)).join(''), 0);
    else this.paced(count, answerAt, intervalMs);
  },

  badLine(req) {
    this.write(`${stringArg(req, 'line')}\n`);
    if (req.data !== undefined) this.answer(req);
  },

  raw(req) {
    const bytes = Buffer.from(stringArg(req, 'text'), 'utf8');
    const chunk = intArg(req, 'chunk', { min: 1, max: Number.MAX_SAFE_INTEGER, fallback: bytes.length || 1 });
    const intervalMs = intArg(req, 'intervalMs', { max: kMaxDelayMs, fallback: 0 });
    const count = Math.ceil(bytes.length / chunk);
    const pieceAt = (i) => bytes.subarray(i * chunk, (i + 1) * chunk);
    this.paced(count, pieceAt, intervalMs, () => true, () => {
      if (req.data !== undefined) this.answer(req);
    });
  },

  close(req) {
    const afterMs = intArg(req, 'afterMs', { max: kMaxDelayMs, fallback: 0 });
    if (req.data !== undefined) this.answer(req);
    if (afterMs === 0) this.end();
    else this.later(afterMs, () => this.end());
  },

  socketOpen(req) {
    const id = socketIdArg(req);
    if (this.sockets.has(id)) throw new RequestError(`socket ${JSON.stringify(id)} is already open`);
    this.sockets.set(id, { id });
    this.answer(req, { data: { socketId: id } });
  },

  socketPush(req) {
    const { id, record } = this.openSocket(req);
    const values = req.lines === undefined ? [] : req.lines;
    if (!Array.isArray(values)) throw new RequestError('"lines" must be an array');
    const rawLines = stringArray(req, 'rawLines');
    const cycle = values.length + rawLines.length;
    const count = intArg(req, 'count', { fallback: cycle });
    const intervalMs = intArg(req, 'intervalMs', { max: kMaxDelayMs, fallback: 0 });
    if (cycle === 0 && count > 0) throw new RequestError('nothing to push: "lines" and "rawLines" are empty');
    const lineAt = (seq) => {
      const k = seq % cycle;
      return k < values.length ? line(-1, id, 1, { seq, data: values[k] }) : `${rawLines[k - values.length]}\n`;
    };
    this.answer(req);
    const alive = () => this.sockets.get(id) === record;
    if (intervalMs === 0) this.paced(1, () => Array.from({ length: count }, (_, i) => lineAt(i)).join(''), 0);
    else this.paced(count, lineAt, intervalMs, alive);
  },

  socketClose(req) {
    const { id } = this.openSocket(req);
    this.sockets.delete(id);
    this.answer(req);
    this.write(line(-1, id, 1, { event: 'close' }));
  },
};

// Starts listening. `log`: false reports only ignored lines, on stderr; true reports every
// connection and request too; a function (text, kind) receives all of it instead of stderr,
// kind being "problem" or "trace".
function start({ host = '127.0.0.1', port = 0, log = false } = {}) {
  const sink = typeof log === 'function' ? log : (text) => process.stderr.write(`pelmare: ${text}\n`);
  const service = {
    conns: new Set(),
    requests: [],
    problem: (text) => sink(text, 'problem'),
    trace: log === false ? () => {} : (text) => sink(text, 'trace'),
  };
  let accepted = 0;
  const server = net.createServer((socket) => {
    const conn = new Connection(service, socket, ++accepted);
    service.conns.add(conn);
    service.trace(`${conn.name} connected from ${socket.remoteAddress}:${socket.remotePort}`);
  });
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(port, host, () => {
      server.off('error', reject);
      const address = server.address();
      resolve({
        host: address.address,
        port: address.port,
        requests: service.requests,
        connections: () => service.conns.size,
        close: () =>
          new Promise((done) => {
            server.close(() => done());
            for (const conn of service.conns) {
              conn.clearTimers();
              conn.socket.destroy();
            }
          }),
      });
    });
  });
}

module.exports = { start };

if (require.main === module) {
  const { parseArgs } = require('node:util');
  const usage = 'usage: pelmare [--host H] [--port P] [--verbose]';
  let values;
  try {
    ({ values } = parseArgs({
      options: {
        host: { type: 'string', default: '127.0.0.1' },
        port: { type: 'string', default: '0' },
        verbose: { type: 'boolean', short: 'v', default: false },
        help: { type: 'boolean', short: 'h' },
      },
    }));
  } catch (err) {
    console.error(`pelmare: ${err.message}\n${usage}`);
    process.exit(2);
  }
  if (values.help) {
    console.log(usage);
    process.exit(0);
  }
  const port = Number(values.port);
  if (!/^\d+$/.test(values.port) || port > 65535) {
    console.error(`pelmare: bad port ${values.port}\n${usage}`);
    process.exit(2);
  }
  start({ host: values.host, port, log: values.verbose }).then(
    (service) => {
      console.log(`pelmare listening on ${service.host}:${service.port}`);
      const stop = () => service.close().then(() => process.exit(0));
      process.once('SIGINT', stop);
      process.once('SIGTERM', stop);
    },
    (err) => {
      console.error(`pelmare: ${err.message}`);
      process.exit(1);
    },
  );
}
