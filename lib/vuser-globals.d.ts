// What a Vuser script finds in its global scope, for an editor's completion and for
// `tsc --checkJs`. A script names this file in its first lines:
//   // @ts-check
//   /// <reference path="<path to ostrale-kesh>/lib/vuser-globals.d.ts" />
// Check with the ES library alone (tsconfig "lib": ["es2022"], "types": []): a Vuser has neither
// a DOM nor Node's timers, and these declarations would clash with theirs.

/** What kesh-run gives every Vuser: its --args object with `service` added. Scripts that expect
 * more can add members to this interface. */
interface KeshArgs {
  service: { host: string; port: number };
  [name: string]: any;
}

/** This Vuser's id, in decimal. */
declare const vuser_id: string;
/** The parsed argument text the Vuser was created with. */
declare const args: KeshArgs;
/** The script's directory, ending with its separator. */
declare const __dirname: string;
/** The script's absolute path. */
declare const __filename: string;
/** An object of the script's own, shared by its modules (not the global object). */
declare const global: Record<string, any>;

declare const console: {
  /** Writes one line on the runner's standard output; exactly one argument. */
  log(text?: unknown): void;
};
/** A line on the runner's log channel, at the level named (Error, Warning, Info, Debug, trace). */
declare function keshConsole(text: string, level: string): void;
/** Loads a module for this Vuser: a path against `dir`, or a package in node_modules above it. */
declare function keshRequire<T = any>(name: string, dir: string, load?: unknown): T;
declare const performance: { now(): number };

/** Starts a timer and returns its id. The callback runs from the queue of script calls, so only
 * while the script drains it (_enableRunningAsyncCallbacks). */
declare function _setTimer(repeat: boolean, callback: (argument: {}) => void, ms: number, extra?: unknown): number;
/** The timer's promise: resolved after a one-shot timer's callback ran, or when it was cleared;
 * undefined once settled. */
declare function _waitForTimer(id: number): Promise<void> | undefined;
declare function _clearTimer(id: number): void;
declare function _clearTimers(): void;
declare function _enableRunningAsyncCallbacks(): void;
declare function _disableRunningAsyncCallbacks(): void;
declare function _runPendingAsyncCallbacks(): void;
declare function _clearPendingRunFunctions(): void;
declare function _runTimeLimitedGc(deadline: number): boolean;

/** Connects to the service at a dotted IPv4 address; blocks until connected. */
declare function _initNetworking(port: number, host: string): void;
/** Writes a request; the answer with that message id reaches the callback, parsed (undefined when
 * it is no JSON). */
declare function _send(messageId: number, payload: string, callback: (answer: any) => void): void;
/** Writes a request and blocks until its answer, which it returns parsed. */
declare function _sendSync(messageId: number, payload: string): any;
/** Writes a request and blocks until it is written. */
declare function _sendSyncNoWait(messageId: number, payload: string): void;
declare function _clearResponsePendingMessages(): void;

/** Lines the service sends for `key` reach the callback. The promise settles when the socket closes. */
declare function _registerNewBareSocket(key: string, callback: (line: any) => void): Promise<unknown>;
declare function _unRegisterNewBareSocket(key: string): void;
declare function _clearAllBareSockets(): void;
/** Resolves on _stopBareSocket(key, false), rejects with its error or, after `timeoutMs`
 * (negative: never), with undefined. */
declare function _newWebSocketBarrier(key: string, timeoutMs: number): Promise<void>;
declare function _waitForBareSocketClosure(key: string, timeoutMs: number): Promise<unknown>;
declare function _disconnectBareSocket(key: string, value?: unknown, callback?: (value: unknown) => void): Promise<unknown> | undefined;
declare function _stopBareSocket(key: string, isError: boolean, error?: unknown): void;
