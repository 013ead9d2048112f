// The official TypeScript client drives the server and the demonstration application, through
// everything that a real client does in a day. SERVER and DEMO name the two programs.

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { LoggingMessageNotificationSchema } from '@modelcontextprotocol/sdk/types.js';
import assert from 'node:assert/strict';
import { copyFileSync, mkdirSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { setTimeout } from 'node:timers/promises';

const home = mkdtempSync(join(tmpdir(), 'orrery-sdk-'));
const events = [];
const client = new Client({ name: 'sdk-test', version: '1' });

const call = (name, args = {}, options) => client.callTool({ name, arguments: args }, undefined, options);
const object = result => JSON.parse(result.content.at(-1).text);

before(async () => {
  copyFileSync(process.env.SERVER, join(home, 'orrery-mcp'));
  copyFileSync(process.env.DEMO, join(home, 'orrery'));
  mkdirSync(join(home, 'tmp'));
  client.setNotificationHandler(LoggingMessageNotificationSchema, message => events.push(message.params));
  await client.connect(new StdioClientTransport({
    command: join(home, 'orrery-mcp'),
    env: { ...process.env, TMPDIR: join(home, 'tmp') },
  }));
});

after(async () => {
  await call('quit_app', { mode: 'force' });
  await client.close();
  rmSync(home, { recursive: true });
});

test('connects and negotiates', () => {
  assert.deepEqual(client.getServerVersion(), { name: 'orrery', version: '0.1.0' });
  assert.deepEqual(client.getServerCapabilities(), { logging: {}, tools: {} });
  assert.equal(client.getInstructions(), undefined);
});

test('lists tools that pass the schema validation', async () => {
  const { tools } = await client.listTools();
  assert.equal(tools.length, 46);
  assert.ok(tools.every(tool => tool.inputSchema.type === 'object'));
});

test('launches, calls and gets errors', async () => {
  assert.equal(object(await call('launch_app')).socketReady, true);
  assert.equal(object(await call('list_vms')).vms.length, 3);
  const refused = await call('start_vm', { id: 'nobody' });
  assert.equal(refused.isError, true);
  assert.match(refused.content[0].text, /^Orrery error \[not_found\]: /);
  assert.match((await call('no_such_tool')).content[0].text, /^unknown tool: no_such_tool$/);
});

test('refuses what the catalogue rules out, and says which kind of fault it is', async () => {
  const { vms } = object(await call('list_vms'));
  const [running, stopped, suspended] = ['running', 'stopped', 'suspended'].map(
    state => vms.find(vm => vm.state === state).id);
  assert.ok(!(await call('add_shared_folder', { id: stopped, hostPath: home })).isError);
  for (const [code, name, args] of [
    ['wrong_state', 'delete_vm', { id: running, confirm: true }],
    ['invalid_argument', 'delete_vm', { id: stopped, confirm: false }],
    ['wrong_state', 'start_vm', { id: suspended }],
    ['wrong_state', 'stop_vm', { id: suspended }],
    ['wrong_state', 'suspend_resume_vm', { id: stopped }],
    ['invalid_argument', 'resize_disk', { id: stopped, newGB: 64, confirm: true }],
    ['invalid_argument', 'add_shared_folder', { id: stopped, hostPath: home, name: 'another' }],
    ['invalid_argument', 'set_linux_network_path', { id: stopped, driver: 'native' }],
    ['not_ready', 'set_linux_network_path', { id: running, driver: 'service' }],
    ['not_ready', 'run_in_guest', { id: running, command: 'echo' }],
    ['invalid_argument', 'wait_for_state', { id: running, timeoutSeconds: 291 }],
    ['invalid_argument', 'read_console_text', { id: running, pattern: '(' }],
  ]) {
    const { isError, content } = await call(name, args);
    assert.ok(isError && content[0].text.startsWith(`Orrery error [${code}]: `), content[0].text);
  }
});

test('sees the events of a job while it waits', async () => {
  const { jobId } = object(await call('create_vm', {
    os: 'linux', cpu: 2, ramGB: 4, diskGB: 20, network: 'nat', name: 'sdk', async: true,
  }));
  const job = object(await call('job_wait', { jobId, timeoutSeconds: 30 }));
  assert.equal(job.state, 'done');
  assert.ok(events.length > 3 && events.every(e => e.logger === 'orrery' && e.level === 'info'));
  assert.equal(events.at(-1).data.detail.progress, 100);
  assert.equal(object(await call('start_vm', { id: job.vmId })).state, 'running');
});

test('finds a resumed machine where it was', async () => {
  const { vms } = object(await call('list_vms'));
  const { id } = vms.find(vm => vm.state === 'suspended');
  await call('suspend_resume_vm', { id });
  assert.ok(object(await call('wait_for_text', { id, pattern: 'login:$' })).found);
  await call('suspend_resume_vm', { id });
  await call('suspend_resume_vm', { id });
  assert.match(object(await call('read_console_text', { id })).text, /login:$/);
});

test('gets pictures of the asked size', async () => {
  const { vms } = object(await call('list_vms'));
  const id = vms.find(vm => vm.state === 'running').id;
  for (const [format, magic] of [['png', '89504e47'], ['jpeg', 'ffd8ff']]) {
    const { content } = await call('capture_screen', { id, format, region: [0, 0, 400, 200], scale: 0.5 });
    assert.equal(content[0].type, 'image');
    assert.equal(content[0].mimeType, `image/${format}`);
    assert.ok(Buffer.from(content[0].data, 'base64').toString('hex').startsWith(magic));
    const { width, height } = JSON.parse(content[1].text);
    assert.deepEqual([width, height], [200, 100]);
  }
});

test('pings during a call, and cancels it', async () => {
  const { vms } = object(await call('list_vms'));
  const id = vms.find(vm => vm.state === 'running').id;
  const abort = new AbortController();
  // A machine in the making has events to tell, which are passed on during calls only: when one
  // comes, the call is on its way to the application.
  await call('create_vm', {
    os: 'linux', cpu: 2, ramGB: 4, diskGB: 20, network: 'nat', name: 'events', async: true,
  });
  const earlier = events.length;
  const waiting = call('wait_for_text', { id, pattern: 'never shown', timeoutSeconds: 45 },
                       { signal: abort.signal });
  waiting.catch(() => {});
  for (let n = 0; events.length < earlier + 2 && n < 2_000; ++n)
    await setTimeout(10);
  await client.ping({ timeout: 10_000 });
  abort.abort('enough');
  await assert.rejects(waiting, /enough/);
  // Had the cancellation not reached the server, this would wait for the first call's end.
  assert.ok(object(await call('list_vms', {}, { timeout: 30_000 })).vms.length >= vms.length);
});
