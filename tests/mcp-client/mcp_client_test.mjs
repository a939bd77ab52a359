// Drives the real `vistrel --mcp` with the MCP SDK's own client.
//
//   node mcp_client_test.mjs <path to vistrel>      (or VISTREL_BINARY=<path>)
//
// MCP clients start their servers with a reduced environment (HOME, PATH, USER, LOGNAME, SHELL,
// TERM), so `vistrel --mcp` always runs with just that here.
// 1. A headless application runs with HOME in a temporary folder and its XDG folders moved
//    elsewhere; `vistrel --mcp` (same HOME, no XDG) reaches it without starting another, is
//    initialized, lists its tools and answers every tool; every byte it writes to standard output
//    must be a JSON-RPC message on its own line.
// 2. No application runs: the first tool call, `status`, starts one in the background and is
//    answered with the machine's status, not an error.
// Exits 0 when every check holds; otherwise prints what failed to standard error and exits 1.

import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { ReadBuffer, serializeMessage } from '@modelcontextprotocol/sdk/shared/stdio.js';
import { JSONRPCMessageSchema, McpError } from '@modelcontextprotocol/sdk/types.js';

const binaryArgument = process.argv[2] ?? process.env.VISTREL_BINARY;
if (!binaryArgument || !fs.existsSync(binaryArgument)) {
  console.error(`mcp_client_test: no vistrel executable at ${JSON.stringify(binaryArgument)}`);
  process.exit(1);
}
const binary = fs.realpathSync(binaryArgument);
const isLinux = process.platform === 'linux';
const TOOL_NAMES = ['status', 'list_apps', 'get_app', 'history', 'agents', 'alerts', 'quit_app'];
const NO_MATCH = 'No running app matches that name. Use list_apps.';
// A name no app has, so that quit_app finds nothing and asks nobody anything.
const NOBODY = 'no-such-app-\u00e6\u00f8\u00e5-7f3a91c2';

const failures = [];
function check(condition, what, detail) {
  if (!condition) {
    failures.push(detail === undefined ? what : `${what}: ${JSON.stringify(detail)}`);
  }
  return condition;
}

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

function makeHome() {
  return fs.mkdtempSync(path.join(os.tmpdir(), 'vistrel-mcp-home-'));
}

// What an MCP client passes its server: no display (the application it starts runs headless), no
// XDG folders. CFFIXED_USER_HOME is macOS's HOME for CoreFoundation: the application's preferences
// then stay in the temporary folder too.
function environmentFor(home) {
  return {
    HOME: home,
    CFFIXED_USER_HOME: home,
    PATH: process.env.PATH ?? '/usr/bin:/bin',
    USER: 'vistrel-test',
    LOGNAME: 'vistrel-test',
    SHELL: '/bin/sh',
    TERM: 'dumb',
  };
}

// An application started from a desktop session: its XDG folders point elsewhere.
function applicationEnvironmentFor(home) {
  return {
    ...environmentFor(home),
    XDG_DATA_HOME: path.join(home, 'xdg', 'data'),
    XDG_CONFIG_HOME: path.join(home, 'xdg', 'config'),
    XDG_RUNTIME_DIR: path.join(home, 'xdg', 'run'),
  };
}

// The socket's place depends on HOME alone (for homes short enough for a socket address).
function socketPathFor(home) {
  return isLinux
    ? path.join(home, '.local', 'share', 'Vistrel', 'control.sock')
    : path.join(home, 'Library', 'Application Support', 'Vistrel', 'control.sock');
}

function canConnect(socketPath) {
  return new Promise((resolve) => {
    const socket = net.connect(socketPath);
    socket.once('connect', () => {
      socket.destroy();
      resolve(true);
    });
    socket.once('error', () => resolve(false));
  });
}

async function waitForSocket(socketPath, seconds) {
  const deadline = Date.now() + seconds * 1000;
  while (Date.now() < deadline) {
    if (fs.existsSync(socketPath) && (await canConnect(socketPath))) return true;
    await sleep(100);
  }
  return false;
}

function startApplication(home) {
  const child = spawn(binary, [], {
    env: applicationEnvironmentFor(home),
    stdio: ['ignore', 'ignore', 'pipe'],
  });
  child.stderrText = '';
  child.stderr.on('data', (d) => (child.stderrText += d));
  child.exited = new Promise((resolve) => child.once('exit', (code, signal) => resolve({ code, signal })));
  return child;
}

async function stopProcess(pid, exited) {
  try {
    process.kill(pid, 'SIGTERM');
  } catch {
    return;
  }
  const outcome = await Promise.race([exited, sleep(15000).then(() => null)]);
  if (outcome === null) {
    try {
      process.kill(pid, 'SIGKILL');
    } catch {}
  }
}

// A transport over a child process that also keeps every byte of its standard output, so that
// the test can see that nothing but MCP messages was written there.
class RecordingTransport {
  constructor(command, args, env) {
    this.command = command;
    this.args = args;
    this.env = env;
    this.stdoutBytes = [];
    this.stderrText = '';
    this.readBuffer = new ReadBuffer();
  }

  start() {
    return new Promise((resolve, reject) => {
      this.child = spawn(this.command, this.args, { env: this.env, stdio: ['pipe', 'pipe', 'pipe'] });
      this.exited = new Promise((res) => this.child.once('exit', (code, signal) => res({ code, signal })));
      this.child.once('error', reject);
      this.child.once('spawn', resolve);
      this.child.stderr.on('data', (d) => (this.stderrText += d));
      // A server that ended early shows up as a closed connection, not as an unhandled EPIPE.
      this.child.stdin.on('error', (error) => this.onerror?.(error));
      this.child.stdout.on('data', (chunk) => {
        this.stdoutBytes.push(chunk);
        this.readBuffer.append(chunk);
        for (;;) {
          let message;
          try {
            message = this.readBuffer.readMessage();
          } catch (error) {
            this.onerror?.(error);
            continue;
          }
          if (message === null) break;
          this.onmessage?.(message);
        }
      });
      this.child.once('close', () => this.onclose?.());
    });
  }

  async send(message) {
    this.child.stdin.write(serializeMessage(message));
  }

  // Writes a raw line, as a misbehaving client would.
  sendRaw(text) {
    this.child.stdin.write(text);
  }

  async close() {
    this.child.stdin.end();
  }

  stdout() {
    return Buffer.concat(this.stdoutBytes).toString('utf8');
  }
}

// A message of the protocol, or JSON-RPC's own answer to a line it could not read: an error
// with "id": null, which the SDK's schema (ids are strings or numbers) does not cover.
function isJsonRpcMessage(message) {
  if (JSONRPCMessageSchema.safeParse(message).success) return true;
  return (
    message?.jsonrpc === '2.0' &&
    message.id === null &&
    Number.isInteger(message.error?.code) &&
    typeof message.error?.message === 'string' &&
    !('result' in message)
  );
}

function textOf(result) {
  check(Array.isArray(result.content) && result.content.length === 1, 'one content item', result);
  const item = result.content?.[0] ?? {};
  check(item.type === 'text' && typeof item.text === 'string', 'a text item', item);
  check(typeof result.isError === 'boolean', 'isError is a boolean', result);
  return item.text ?? '';
}

function jsonOf(text, what) {
  try {
    return JSON.parse(text);
  } catch {
    check(false, `${what} answers JSON text`, text.slice(0, 300));
    return undefined;
  }
}

async function call(client, name, args) {
  return client.callTool({ name, arguments: args }, undefined, { timeout: 30000 });
}

async function withRunningApplication() {
  const home = makeHome();
  const app = startApplication(home);
  try {
    if (!check(await waitForSocket(socketPathFor(home), 60), 'the application listens', app.stderrText)) {
      return;
    }
    const transport = new RecordingTransport(binary, ['--mcp'], environmentFor(home));
    const client = new Client({ name: 'vistrel-test', version: '1.0.0' });
    await client.connect(transport);

    const info = client.getServerVersion();
    check(info?.name === 'Vistrel' && info?.title === 'Vistrel', 'server name and title', info);
    check(typeof info?.version === 'string' && info.version.length > 0, 'a server version', info);
    const instructions = client.getInstructions() ?? '';
    check(instructions.startsWith('Vistrel watches this '), 'the instructions', instructions);
    if (isLinux) check(!/\bMac\b|\bmacOS\b/.test(instructions), 'Linux words in the instructions');

    await client.ping();

    const { tools } = await client.listTools();
    check(
      JSON.stringify(tools.map((t) => t.name)) === JSON.stringify(TOOL_NAMES),
      'the seven tools in order',
      tools.map((t) => t.name),
    );
    for (const tool of tools) {
      check(typeof tool.description === 'string' && tool.description.length > 20, `${tool.name} description`);
      if (isLinux) check(!/\bMac\b|\bmacOS\b/.test(tool.description), `${tool.name} says computer`);
      check(tool.inputSchema?.type === 'object', `${tool.name} schema`, tool.inputSchema);
      check(tool.inputSchema?.additionalProperties === false, `${tool.name} closed schema`);
      check(tool.annotations?.destructiveHint === false, `${tool.name} not destructive`);
      check(tool.annotations?.readOnlyHint === (tool.name !== 'quit_app'), `${tool.name} read-only hint`);
    }

    // Asked as soon as the socket opens: the first sample may not have reached the application.
    const status = await call(client, 'status', {});
    const statusText = textOf(status);
    check(!status.isError, 'status answers', statusText);
    const statusValue = jsonOf(statusText, 'status');
    check(statusValue && typeof statusValue === 'object' && 'summary' in statusValue, 'status has a summary', statusValue);

    const listApps = await call(client, 'list_apps', { sort: 'cpu', limit: 3 });
    const apps = jsonOf(textOf(listApps), 'list_apps');
    check(!listApps.isError && Array.isArray(apps) && apps.length <= 3, 'list_apps: at most 3 apps', apps);

    const getApp = await call(client, 'get_app', { name: NOBODY });
    check(getApp.isError && textOf(getApp) === NO_MATCH, 'get_app: no match', getApp);

    const history = await call(client, 'history', { metric: 'cpu', span: '1h' });
    const historyValue = jsonOf(textOf(history), 'history');
    check(!history.isError && historyValue?.metric === 'cpu', 'history of cpu', historyValue);

    const badHistory = await call(client, 'history', { metric: 'weather' });
    check(badHistory.isError && textOf(badHistory).startsWith('metric must be'), 'history: unknown metric', badHistory);

    const agents = await call(client, 'agents', {});
    const agentsValue = jsonOf(textOf(agents), 'agents');
    check(
      !agents.isError && agentsValue && 'claude_code' in agentsValue && 'codex' in agentsValue,
      'agents: both tools',
      agentsValue,
    );

    const alerts = await call(client, 'alerts', { limit: 5 });
    const alertsValue = jsonOf(textOf(alerts), 'alerts');
    check(!alerts.isError && Array.isArray(alertsValue) && alertsValue.length <= 5, 'alerts: a list', alertsValue);

    const quit = await call(client, 'quit_app', { name: NOBODY });
    check(quit.isError && textOf(quit) === NO_MATCH, 'quit_app asks about nobody', quit);

    // An unknown method is a JSON-RPC error, not a crash.
    try {
      await client.request({ method: 'resources/list', params: {} }, JSONRPCMessageSchema);
      check(false, 'resources/list is refused');
    } catch (error) {
      check(error instanceof McpError && error.code === -32601, 'resources/list: method not found', String(error));
    }

    // Bad input on the same connection: lines that are no JSON object are skipped unanswered,
    // then the server still answers.
    transport.sendRaw('this is not json\n');
    transport.sendRaw('[1,2,3]\n');
    transport.sendRaw('{"jsonrpc":"2.0","method":"notifications/whatever"}\n');
    await client.ping();

    await client.close();
    const { code } = await Promise.race([transport.exited, sleep(10000).then(() => ({ code: 'hung' }))]);
    check(code === 0, '--mcp exits 0 at the end of its input', code);
    check(transport.stderrText === '', '--mcp writes nothing to standard error', transport.stderrText);

    const stdout = transport.stdout();
    check(stdout.endsWith('\n'), 'standard output ends with a whole line');
    const lines = stdout.split('\n').slice(0, -1);
    for (const line of lines) {
      let message;
      try {
        message = JSON.parse(line);
      } catch {
        check(false, 'only JSON-RPC messages on standard output', line.slice(0, 200));
        continue;
      }
      check(isJsonRpcMessage(message), 'a JSON-RPC message', line.slice(0, 200));
      check(message.jsonrpc === '2.0' && 'id' in message, 'an answer with an id', line.slice(0, 200));
      check(message.id !== null, 'never an answer with id null', line.slice(0, 200));
    }
    // initialize, ping, tools/list, 8 tool calls, resources/list and the last ping; the lines that
    // are no JSON object and the notification got nothing.
    check(lines.length === 1 + 1 + 1 + 8 + 1 + 1, 'one answer per request', lines.length);
    if (isLinux) check(applicationsWithHome(home).length === 1, 'no second application was started');
  } finally {
    await stopProcess(app.pid, app.exited);
    fs.rmSync(home, { recursive: true, force: true });
  }
}

// The processes of this user running `binary` with HOME set to `home` (Linux: from /proc).
function applicationsWithHome(home) {
  const found = [];
  for (const entry of fs.readdirSync('/proc')) {
    if (!/^\d+$/.test(entry)) continue;
    try {
      const exe = fs.readlinkSync(`/proc/${entry}/exe`);
      if (exe !== binary) continue;
      const environ = fs.readFileSync(`/proc/${entry}/environ`, 'utf8').split('\0');
      const args = fs.readFileSync(`/proc/${entry}/cmdline`, 'utf8').split('\0');
      if (environ.includes(`HOME=${home}`) && !args.includes('--mcp')) found.push(Number(entry));
    } catch {}
  }
  return found;
}

async function withoutApplication() {
  if (!isLinux) return;  // macOS starts the installed bundle through `open`, not this build
  const home = makeHome();
  let client;
  try {
    const transport = new StdioClientTransport({
      command: binary,
      args: ['--mcp'],
      env: environmentFor(home),
      stderr: 'pipe',
    });
    client = new Client({ name: 'vistrel-test-cold', version: '1.0.0' });
    await client.connect(transport);
    const started = Date.now();
    const result = await call(client, 'status', {});
    const text = textOf(result);
    check(!result.isError, 'the started application answers status at once', text);
    const value = jsonOf(text, 'cold status');
    check(value && typeof value === 'object' && 'summary' in value, 'cold status has a summary', value);
    check(Date.now() - started < 15000 + 5000, 'answered within the start-up wait', Date.now() - started);
    check(fs.existsSync(socketPathFor(home)), 'the started application listens');
    const running = applicationsWithHome(home);
    check(running.length === 1, 'one application was started', running);
  } finally {
    await client?.close();
    for (const pid of applicationsWithHome(home)) {
      const gone = (async () => {
        for (let i = 0; i < 150; ++i) {
          try {
            process.kill(pid, 0);
          } catch {
            return;
          }
          await sleep(100);
        }
      })();
      await stopProcess(pid, gone);
    }
    fs.rmSync(home, { recursive: true, force: true });
  }
}

const watchdog = setTimeout(() => {
  console.error('mcp_client_test: timed out');
  process.exit(1);
}, 240000);

try {
  await withRunningApplication();
  await withoutApplication();
} catch (error) {
  failures.push(`threw: ${error?.stack ?? error}`);
}
clearTimeout(watchdog);
if (failures.length) {
  for (const f of failures) console.error(`FAIL ${f}`);
  process.exit(1);
}
console.error('mcp_client_test: all checks passed');
