/* A picture of the page: `node screenshot.js URL FILE [WIDTH HEIGHT]`. */
import { fileURLToPath } from 'node:url';
import { chromium } from 'playwright-core';

export function launch() {
  return chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
  });
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  const [url, file, width = 1400, height = 700] = process.argv.slice(2);
  const browser = await launch();
  const page = await browser.newPage({ viewport: { width: Number(width), height: Number(height) } });

  await page.goto(url);
  /* The first update of each head has been drawn. */
  await page.waitForFunction(() => document.querySelectorAll('canvas').length > 0
    && [...document.querySelectorAll('canvas')].every(canvas => canvas.dataset.drawn), null, { timeout: 30000 });
  await page.screenshot({ path: file });
  await browser.close();
}
