// The official TypeScript client drives the server and the demonstration application, through everything
// that a real client does in a day, on machines that QEMU runs. SERVER and DEMO name the two programs,
// GUEST the folder of what the machines boot.

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { LoggingMessageNotificationSchema } from '@modelcontextprotocol/sdk/types.js';
import assert from 'node:assert/strict';
import {
  copyFileSync, existsSync, mkdirSync, mkdtempSync, readdirSync, readlinkSync, rmSync, statSync, symlinkSync,
  writeFileSync,
} from 'node:fs';
import { tmpdir } from 'node:os';
import { basename, join } from 'node:path';
import { after, before, test } from 'node:test';
import { setTimeout } from 'node:timers/promises';

const home = mkdtempSync(join(tmpdir(), 'orrery-sdk-'));
const temporary = join(home, 'tmp');

async function connect(name, variables = { TMPDIR: temporary }) {
  const client = new Client({ name, version: '1' });
  const events = [];
  client.setNotificationHandler(LoggingMessageNotificationSchema, message => events.push(message.params));
  await client.connect(new StdioClientTransport({
    command: join(home, 'orrery-mcp'), env: { ...process.env, ...variables },
  }));
  const call = (tool, args = {}, options = {}) =>
    client.callTool({ name: tool, arguments: args }, undefined, { timeout: 300_000, ...options });
  const object = async (tool, args) => {
    const { isError, content } = await call(tool, args);
    assert.ok(!isError, `${tool}: ${content[0].text}`);
    return JSON.parse(content.at(-1).text);
  };
  return { client, events, call, object };
}

let one, two; // clients, with a server each and one application for both
let demo, made; // machines: the first, and one of this test

before(async () => {
  copyFileSync(process.env.SERVER, join(home, 'orrery-mcp'));
  copyFileSync(process.env.DEMO, join(home, 'orrery'));
  symlinkSync(process.env.GUEST, join(home, 'guest'));
  mkdirSync(temporary);
  one = await connect('sdk-test');
  two = await connect('sdk-test-2');
});

after(async () => {
  await one?.call('quit_app', { mode: 'force' });
  await Promise.all([one, two].map(each => each?.client.close()));
  rmSync(home, { recursive: true });
});

// The processes that execute such a file and work below this test's folder, or are its application.
function processes(program) {
  const link = (pid, name) => {
    try {
      return readlinkSync(`/proc/${pid}/${name}`);
    } catch {
      return ''; // it has ended
    }
  };
  return readdirSync('/proc').filter(name => /^\d+$/.test(name)).map(Number).filter(
    pid => basename(link(pid, 'exe')) === program
      && [link(pid, 'cwd'), link(pid, 'exe')].some(path => path.startsWith(home)));
}

async function nothingRuns() {
  const all = () => ['orrery', 'qemu-system-x86_64'].flatMap(processes);
  for (let n = 0; n < 1_500 && all().length > 0; ++n)
    await setTimeout(20);
  assert.deepEqual(all(), []);
}

const vms = async () => (await one.object('list_vms')).vms;
const newMachine = (name, more = {}) => one.object('create_vm', {
  os: 'linux', cpu: 1, ramGB: 1, diskGB: 8, network: 'nat', unattended: true, username: 'ada',
  password: 'Love lace', name, ...more,
});

async function shows(id, pattern, client = one) {
  const { found, line } = await client.object('wait_for_text', { id, pattern, timeoutSeconds: 120 });
  const { text } = await client.object('read_console_text', { id }); // tells why, where it is not there
  assert.ok(found, `${pattern} is not in:\n${text}`);
  return line;
}

const type = (id, value) => one.object('send_input', { id, type: 'text', value });

async function logIn(id, user, password) {
  for (const [prompt, answer] of [['login:$', user], ['^Password:$', password]]) {
    await shows(id, prompt);
    await type(id, `${answer}\n`);
  }
  await shows(id, '\\$$');
}

async function inGuest(id, command, more = {}) {
  const { exitCode, stdout, stderr, timedOut } = await one.object('run_in_guest', {
    id, command, connectTimeoutSeconds: 60, timeoutSeconds: 120, ...more });
  return timedOut ? 'timed out' : [exitCode, stdout, stderr];
}

// A call of the second client that has reached the application: the application tells events only to
// who waits for an answer, and each machine that is made has some.
async function neverAnswered(options) {
  const earlier = two.events.length;
  const waiting = two.call('wait_for_text', { id: demo, pattern: 'never', timeoutSeconds: 280 }, options);
  waiting.catch(() => {});
  for (let n = 0; n < 100 && two.events.length === earlier; ++n)
    await newMachine(undefined);
  assert.ok(two.events.length > earlier);
  return { waiting };
}

test('connects, negotiates and lists tools that pass the schema validation', async () => {
  assert.deepEqual(one.client.getServerVersion(), { name: 'orrery', version: '0.1.0' });
  assert.deepEqual(one.client.getServerCapabilities(), { logging: {}, tools: {} });
  assert.equal(one.client.getInstructions(), undefined);
  const { tools } = await one.client.listTools();
  assert.equal(tools.length, 46);
  assert.ok(tools.every(tool => tool.inputSchema.type === 'object'));
});

test('launches the application and makes a machine, with events meanwhile', async () => {
  assert.equal((await one.object('launch_app')).socketReady, true);
  const machines = await vms();
  assert.deepEqual(machines.map(({ name, state }) => [name, state]), [['Demo Linux', 'running']]);
  demo = machines[0].id;
  ({ id: made } = await newMachine('made'));
  assert.deepEqual(one.events.map(event => event.data.detail.progress), [10, 40, 80, 100]);
  assert.ok(one.events.every(event => event.logger === 'orrery' && event.level === 'info'));
  const { jobId } = await newMachine('later', { async: true });
  const { state, vmId } = await one.object('job_wait', { jobId });
  assert.equal(state, 'done');
  await one.object('delete_vm', { id: vmId, confirm: true });
});

test('logs in by typed keys and reads what the screen says', async () => {
  const text = 'Az09 ~!@#$%^&*()_+{}|:"<>?`-=[]\\;,./';
  await logIn(demo, 'demo', 'demo');
  await type(demo, `clear; echo '${text}' | tee typed\n`);
  await shows(demo, '^Az09');
  assert.equal((await one.object('read_console_text', { id: demo, pattern: '^Az09' })).text, text);
});

test('gets pictures of the asked size', async () => {
  for (const [format, magic] of [['png', '89504e47'], ['jpeg', 'ffd8ff']]) {
    const part = { region: [0, 0, 400, 200], scale: 0.5 };
    const { content } = await one.call('capture_screen', { id: demo, format, ...part });
    assert.equal(content[0].mimeType, `image/${format}`);
    assert.ok(Buffer.from(content[0].data, 'base64').toString('hex').startsWith(magic));
    const { width, height } = JSON.parse(content[1].text);
    assert.deepEqual([width, height], [200, 100]);
  }
  const { path } = await one.object('capture_screen', { id: demo, output: 'file' });
  assert.equal(statSync(path).mode & 0o777, 0o600);
  rmSync(path);
});

test('runs commands over SSH, and ends what takes too long with its children', async () => {
  assert.equal((await one.object('provision_ssh', { id: demo })).user, 'demo');
  assert.deepEqual(await inGuest(demo, 'wc -l <typed; echo no >&2; exit 3'), [3, '1\n', 'no\n']);
  assert.deepEqual(await inGuest(demo, 'sudo -n id -u'), [0, '0\n', '']);
  const long = 'nohup sleep 5431 >log 2>&1 </dev/null & sleep 5432 & sleep 5433';
  assert.equal(await inGuest(demo, long, { commandTimeoutSeconds: 1 }), 'timed out');
  assert.deepEqual(await inGuest(demo, 'ps | grep -o "[s]leep 543."'), [0, 'sleep 5431\n', '']);
});

test('suspends a machine, whose process ends, and finds it where it was', async () => {
  assert.equal((await one.object('suspend_resume_vm', { id: demo })).state, 'suspended');
  assert.deepEqual(processes('qemu-system-x86_64'), []);
  for (const [tool, args] of [['start_vm'], ['stop_vm'], ['capture_screen'], ['delete_vm', { confirm: true }]])
    assert.match((await one.call(tool, { id: demo, ...args })).content[0].text, /^Orrery error \[wrong_state\]: /);
  assert.equal((await one.object('suspend_resume_vm', { id: demo })).state, 'running');
  await shows(demo, '^Az09');
  assert.deepEqual(await inGuest(demo, 'cat typed >again'), [0, '', '']);
});

test('refuses what the catalogue rules out, and says which kind of fault it is', async () => {
  for (const [code, name, args] of [
    ['not_found', 'start_vm', { id: 'nobody' }],
    ['wrong_state', 'delete_vm', { id: demo, confirm: true }],
    ['wrong_state', 'resize_disk', { id: demo, newGB: 9, confirm: true }],
    ['invalid_argument', 'delete_vm', { id: made, confirm: false }],
    ['wrong_state', 'suspend_resume_vm', { id: made }],
    ['wrong_state', 'send_input', { id: made, type: 'text', value: 'x' }],
    ['invalid_argument', 'send_input', { id: demo, type: 'text', value: 'ä' }],
    ['invalid_argument', 'send_input', { id: demo, type: 'move', x: 720, y: 0 }],
    ['invalid_argument', 'resize_disk', { id: made, newGB: 8, confirm: true }],
    ['invalid_argument', 'create_vm', { os: 'linux', cpu: 1, ramGB: 1, diskGB: 8, network: 'nat', name: 'made' }],
    ['invalid_argument', 'wait_for_state', { id: demo, timeoutSeconds: 291 }],
    ['invalid_argument', 'read_console_text', { id: demo, pattern: '(' }],
    ['wrong_state', 'run_in_guest', { id: made, command: 'true' }],
    ['not_available', 'read_guest_clipboard', { id: demo }],
    ['not_available', 'add_shared_folder', { id: made, hostPath: home }],
  ]) {
    const { isError, content } = await one.call(name, args);
    assert.ok(isError && content[0].text.startsWith(`Orrery error [${code}]: `), `${name}: ${content[0].text}`);
  }
  assert.equal((await one.call('no_such_tool')).content[0].text, 'unknown tool: no_such_tool');
});

test('shuts a machine down, and its disk grows around its files', async () => {
  assert.equal((await one.object('stop_vm', { id: demo })).state, 'stopped');
  await one.object('resize_disk', { id: demo, newGB: 9, confirm: true });
  await Promise.all([demo, made].map(id => one.object('start_vm', { id })));
  await shows(demo, 'login:$');
  assert.deepEqual(await inGuest(demo, 'cmp typed again && cat /sys/block/vda/size'), [0, `${9 << 21}\n`, '']);
  await logIn(made, 'ada', 'Love lace');
});

test('serves a client while another waits, and takes a cancellation', async () => {
  // The screen is read while keys arrive; none of them may get lost.
  const digits = '0123456789'.repeat(7);
  const seen = shows(made, `^${digits}$`, two);
  await type(made, `echo ${digits}\n`);
  await seen;
  const abort = new AbortController();
  const { waiting } = await neverAnswered({ signal: abort.signal });
  await two.client.ping({ timeout: 30_000 });
  abort.abort('enough');
  await assert.rejects(waiting, /enough/);
  // Had the cancellation not reached the server, this would wait for the first call's end.
  await two.call('list_vms', {}, { timeout: 60_000 });
});

test('tells that a machine was killed, starts it again and deletes it', async () => {
  const pid = processes('qemu-system-x86_64').find(each => readlinkSync(`/proc/${each}/cwd`) === made);
  process.kill(pid, 'SIGKILL');
  assert.ok((await one.object('wait_for_state', { id: made, target: 'stopped', timeoutSeconds: 60 })).reached);
  assert.match((await one.object('get_diagnostics', { id: made })).lastError, /killed/);
  assert.equal((await one.object('start_vm', { id: made })).state, 'running');
  rmSync(join(made, 'screen')); // where no picture can be written, nothing pretends that it was read
  mkdirSync(join(made, 'screen'));
  for (const tool of ['capture_screen', 'read_console_text'])
    assert.match((await one.call(tool, { id: made })).content[0].text, /^Orrery error \[failed\]: .* cannot write/);
  assert.equal((await one.object('stop_vm', { id: made, mode: 'force' })).state, 'stopped');
  await one.object('delete_vm', { id: made, confirm: true });
  assert.ok(!existsSync(made));
});

test('survives that the application is killed, and leaves nothing behind however it ends', async () => {
  const { waiting } = await neverAnswered();
  process.kill(processes('orrery')[0], 'SIGKILL');
  assert.match((await waiting).content[0].text, /Orrery closed the connection/);
  await nothingRuns();
  for (const end of [() => process.kill(processes('orrery')[0], 'SIGINT'), () => one.object('quit_app')]) {
    assert.deepEqual((await vms()).map(vm => vm.name), ['Demo Linux']);
    await end();
    await nothingRuns();
    assert.deepEqual(readdirSync(temporary), []);
  }
});

test('tells why the first machine could not be made', async t => {
  const folder = join(home, 'broken');
  mkdirSync(folder);
  writeFileSync(join(folder, 'qemu-img'), '#!/bin/sh\necho broken >&2\nexit 1\n', { mode: 0o755 });
  const three = await connect('sdk-test-3', { TMPDIR: folder, PATH: `${folder}:${process.env.PATH}` });
  t.after(() => three.client.close());
  assert.deepEqual((await three.object('list_jobs')).jobs.map(job => job.error), ['making the disk failed: broken']);
});
