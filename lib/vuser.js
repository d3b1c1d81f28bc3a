'use strict';
// The Vuser-side library: what a Vuser script loads with keshRequire to talk to the service
// without handling message ids, line ends or the queue of script calls itself.
//
//   const pelmare = keshRequire('<path of this file>');
//   pelmare.connect(port);
//   const answer = await pelmare.send({ op: 'echo', data: 1 });

let nextId = 0;
let connected = false;

// Ids the library chooses: positive, 32-bit, and not reused before two billion requests.
function takeId() {
  nextId = nextId >= 0x7fffffff ? 1 : nextId + 1;
  return nextId;
}

function frame(payload) {
  const messageId = takeId();
  const body = typeof payload === 'object' && payload !== null ? payload : { data: payload };
  return { messageId, text: `${JSON.stringify({ messageId, ...body })}\n` };
}

module.exports = {
  // Blocks until the connection stands. Answers are delivered through the queue of script calls,
  // so the queue is drained from here on.
  connect(port, host = '127.0.0.1') {
    _initNetworking(port, host);
    _enableRunningAsyncCallbacks();
    connected = true;
  },

  get connected() {
    return connected;
  },

  // A promise of the parsed answer (undefined when the answer is no JSON).
  send(payload) {
    const { messageId, text } = frame(payload);
    return new Promise((resolve) => _send(messageId, text, resolve));
  },

  // The parsed answer, as the plain result; the script waits for it.
  sendSync(payload) {
    const { messageId, text } = frame(payload);
    return _sendSync(messageId, text);
  },

  // Returns once the bytes are written; an answer, if one comes, is dropped.
  sendNoWait(payload) {
    const { messageId, text } = frame(payload);
    _sendSyncNoWait(messageId, text);
  },

  // Forgets every request still waiting: their promises never settle.
  forgetPending() {
    _clearResponsePendingMessages();
  },

  // Opens a socket that the service holds for this script. `onMessage` gets each of its lines,
  // parsed, or as text when it is no JSON. The service's close line closes it here too.
  async openSocket(socketId, onMessage) {
    const closed = _registerNewBareSocket(socketId, (line) => {
      if (line !== null && typeof line === 'object' && line.event === 'close') {
        _disconnectBareSocket(socketId, line);
      } else {
        onMessage(line);
      }
    });
    const answer = await module.exports.send({ op: 'socketOpen', socketId });
    if (answer && answer.error) {
      _unRegisterNewBareSocket(socketId);
      throw new Error(`cannot open socket ${socketId}: ${answer.error}`);
    }
    return {
      id: socketId,
      // Settled once the socket has closed, with what closed it.
      closed,
      // Resolves when release() is called, rejects with undefined after `timeoutMs` (negative:
      // no time-out). One wait at a time.
      wait: (timeoutMs) => _newWebSocketBarrier(socketId, timeoutMs),
      release: (error) => _stopBareSocket(socketId, error !== undefined, error),
      waitForClose: (timeoutMs = -1) => _waitForBareSocketClosure(socketId, timeoutMs),
      async close() {
        await module.exports.send({ op: 'socketClose', socketId });
        const value = await _disconnectBareSocket(socketId, 'closed by the script');
        _unRegisterNewBareSocket(socketId);
        return value;
      },
    };
  },

  // A promise resolved after `ms` milliseconds, on the Vuser's own timers.
  sleep(ms) {
    return _waitForTimer(_setTimer(false, () => {}, ms));
  },
};
