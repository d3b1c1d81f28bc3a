// Types of require('ostrale-kesh'): the add-on's commands. All run on the main thread.

export type LogLevel = 'error' | 'warning' | 'info' | 'debug';

/** Bad input is logged, never thrown. */
export function setLogLevel(level: LogLevel): void;
/** Once per process. `line` is "component - (tid) text"; `levelName` is Error, Warning, Info,
 * Debug, trace, or what a script gave keshConsole. */
export function onLogMessage(callback: (line: string, levelName: string) => void): void;
/** Throws for a missing or unreadable script. `argsJson` becomes the script's `args`. */
export function createKeshThread(id: number, scriptPath: string, argsJson: string): void;
/** Fulfilled with "Vuser [id] thread started" once the script ran; rejected with the text
 * "Vuser [id] thread fail to start". */
export function startKeshThread(id: number): Promise<string>;
/** Only with exactly one Vuser created, before it starts. */
export function initKeshInspector(host: string, port: number): void;
/** The Vuser calls its global function `name` with `parameter`, parsed as JSON when it is JSON. */
export function runFunctionFromScript(id: number, name: string, parameter: string): void;
/** Returns once the Vuser's thread has ended. */
export function stopKeshThread(id: number): void;
/** Throws while a started Vuser is not stopped. */
export function destroyKeshThreads(): void;
