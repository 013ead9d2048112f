// Has the MCP Inspector's web page show the screen of one of the demonstration's machines, and takes
// a picture of it: node picture.mjs SERVER TMPDIR PICTURE. Its own files go below TMPDIR.

import { chromium } from 'playwright-core';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { createServer } from 'node:net';
import { join } from 'node:path';

const [server, folder, picture] = process.argv.slice(2);

async function freePort() {
  const listener = createServer().listen(0, '127.0.0.1');
  await once(listener, 'listening');
  const { port } = listener.address();
  listener.close();
  await once(listener, 'close');
  return String(port);
}

// Starts the Inspector; gives its process and the address of its page.
async function startInspector() {
  const inspector = spawn(
    process.execPath,
    ['node_modules/@modelcontextprotocol/inspector/clients/launcher/build/index.js', '--web',
     '-e', `TMPDIR=${folder}`, server],
    {
      stdio: ['ignore', 'pipe', 'inherit'],
      env: {
        ...process.env,
        HOME: folder,
        MCP_STORAGE_DIR: join(folder, 'inspector'),
        MCP_INSPECTOR_SECRET_STORE: 'memory',
        MCP_AUTO_OPEN_ENABLED: 'false',
        CLIENT_PORT: await freePort(),
        MCP_SANDBOX_PORT: await freePort(),
      },
    });
  let output = '';
  for await (const chunk of inspector.stdout) {
    output += chunk;
    const address = output.match(/http:\/\/127\.0\.0\.1:\d+\S*MCP_INSPECTOR_API_TOKEN=\S+/);
    if (address)
      return { inspector, address: address[0] };
  }
  throw new Error(`the Inspector ended without an address: ${output}`);
}

// Calls a tool through the page's form and waits for an answer that shows the wanted member.
async function call(page, tool, fields, wanted) {
  await page.getByRole('button', { name: tool, exact: true }).click();
  for (const [name, value] of Object.entries(fields))
    await page.getByLabel(name, { exact: true }).fill(value);
  await page.getByRole('button', { name: 'Execute Tool' }).click();
  const answer = await page.waitForFunction(
    wanted => document.body.innerText.match(new RegExp(`"${wanted}": .*`))?.input, wanted);
  return answer.jsonValue();
}

const browser = await chromium.launch({
  executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
         '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
const { inspector, address } = await startInspector();
try {
  // The page shows pictures 400 pixels wide; twice as fine, the machine's text stays readable.
  const page = await browser.newPage({ viewport: { width: 1280, height: 690 }, deviceScaleFactor: 2 });
  await page.goto(address);
  await page.getByRole('switch', { name: /^Connect/ }).click({ force: true });
  await page.getByText('Tools', { exact: true }).click();
  await page.getByRole('button', { name: 'Close monitoring sidebar' }).click();
  const [, id] = (await call(page, 'list_vms', {}, 'vms')).match(/"id": "([^"]*Demo Linux[^"]*)"/);
  await call(page, 'wait_for_text', { 'id *': id, 'pattern *': 'login:' }, 'found');
  await call(page, 'capture_screen', { 'id *': id }, 'displayWidth');
  await page.locator('img[src^="data:image"]').waitFor();
  await page.screenshot({ path: picture, clip: { x: 0, y: 0, width: 880, height: 640 } });
  await call(page, 'quit_app', {}, 'quit');
} finally {
  await browser.close();
  inspector.kill();
  await once(inspector, 'exit');
}
