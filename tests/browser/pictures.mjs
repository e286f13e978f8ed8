// SPDX-License-Identifier: MIT
// Makes the pictures of README from a night of 300 incidents: node pictures.mjs FOLDER
import {execFileSync} from 'node:child_process';
import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import puppeteer from 'puppeteer-core';

const {ZKEXPORT, NIGHT, CHROMIUM} = process.env;
const folder = mkdtempSync(join(tmpdir(), 'pictures-'));
const file = join(folder, 'night.html');
const environment = {...process.env, TZ: 'UTC', HOME: folder};
writeFileSync(file, execFileSync(ZKEXPORT, ['--input', '--format=html'],
  {input: execFileSync(NIGHT, [300]), env: environment, maxBuffer: 64 * 1024 * 1024}));
const browser = await puppeteer.launch({
  executablePath: CHROMIUM, userDataDir: join(folder, 'profile'), env: environment,
  args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
for (const [name, width, height, look] of [['page', 1280, 1000, 'light'], ['page-narrow-dark', 400, 1000, 'dark']]) {
  const tab = await browser.newPage();
  await tab.setViewport({width, height});
  await tab.emulateMediaFeatures([{name: 'prefers-color-scheme', value: look}]);
  await tab.goto(`file://${file}`);
  await tab.screenshot({path: join(process.argv[2], `${name}.png`)});
}
await browser.close();
rmSync(folder, {recursive: true});
