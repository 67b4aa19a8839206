// Drives headless Chromium through a plan of page actions and prints one JSON line with the
// result of each action. The browser tests of the results pages run it as a child process.
//
//   node drive.mjs plan.json
//
// A plan: {"base": "http://127.0.0.1:8080", "timeoutMs": 10000, "totalTimeoutMs": 45000,
//          "viewport": {"width": 1280, "height": 800}, "actions": [ {...}, ... ]}
// Actions ("do"), each answered by one entry of "results":
//   goto       {path}                     -> {status, path}
//   login      {key}                      fills form#login and submits it -> {status, path}
//   steps                                 -> [{step, status, baseline, current, diff, regions}]
//   text       {selector}                 -> trimmed text of the first match
//   attr       {selector, name}           -> attribute value of the first match
//   count      {selector}                 -> number of matches
//   click      {selector}                 clicks and waits for the page it loads -> {status, path}
//   toggle                                clicks #view-toggle -> {overlay: bool}
//   screenshot {path, fullPage, mask}     -> {path}; mask: selectors painted over
//   forge      {url, action, fields}      opens `url` (another origin), builds a POST form to
//                                         `action` there and submits it -> {status, path, body}
// An action with "as": "name" keeps its result under that name in "named"; "${name}" in later
// string fields is replaced by it.
// Exit status: 0 when every action succeeded, 1 otherwise ({"ok": false, "error": ...}).
import { readFileSync } from 'node:fs';
import { chromium } from 'playwright-core';

const BROWSER_ARGS = [
  '--headless',
  '--no-sandbox',
  '--disable-gpu',
  '--disable-dev-shm-usage',
  '--disable-background-networking',
  '--disable-component-update',
  '--no-first-run',
  '--font-render-hinting=none',
  '--hide-scrollbars',
];

function substitute(value, saved) {
  if (typeof value === 'string') {
    return value.replace(/\$\{(\w+)\}/g, (match, name) => {
      if (!(name in saved)) throw new Error(`no saved value named ${name}`);
      return String(saved[name]);
    });
  }
  if (Array.isArray(value)) return value.map((v) => substitute(v, saved));
  if (value && typeof value === 'object') {
    return Object.fromEntries(Object.entries(value).map(([k, v]) => [k, substitute(v, saved)]));
  }
  return value;
}

function pageResult(page, response) {
  const url = new URL(page.url());
  return { status: response ? response.status() : 0, path: url.pathname + url.search };
}

// Runs `trigger` and waits for the navigation it starts.
async function navigation(page, timeout, trigger) {
  const [response] = await Promise.all([page.waitForNavigation({ timeout }), trigger()]);
  return pageResult(page, response);
}

async function first(page, selector, timeout) {
  const locator = page.locator(selector).first();
  await locator.waitFor({ state: 'attached', timeout });
  return locator;
}

async function perform(page, plan, action, timeout) {
  switch (action.do) {
    case 'goto':
      return pageResult(page, await page.goto(new URL(action.path, plan.base).href,
                                               { timeout, waitUntil: 'load' }));
    case 'login': {
      const form = await first(page, 'form#login', timeout);
      await form.locator('input[name=apiKey]').fill(action.key, { timeout });
      return navigation(page, timeout, () =>
        form.locator('button[type=submit], input[type=submit], button:not([type])').first()
          .click({ timeout }));
    }
    case 'steps':
      return page.$$eval('section.step', (sections) =>
        sections.map((s) => ({
          step: Number(s.dataset.step),
          status: s.dataset.status ?? null,
          baseline: s.querySelectorAll('img.baseline').length,
          current: s.querySelectorAll('img.current').length,
          diff: s.querySelectorAll('img.diff').length,
          regions: [...s.querySelectorAll('.region')].map((r) => r.dataset.kind ?? ''),
          loaded: [...s.querySelectorAll('img')].every((i) => i.complete && i.naturalWidth > 0),
        })));
    case 'text':
      return (await (await first(page, action.selector, timeout)).textContent({ timeout })).trim();
    case 'attr':
      return (await first(page, action.selector, timeout)).getAttribute(action.name, { timeout });
    case 'count':
      return page.locator(action.selector).count();
    case 'click': {
      const target = await first(page, action.selector, timeout);
      return navigation(page, timeout, () => target.click({ timeout }));
    }
    case 'toggle': {
      await (await first(page, '#view-toggle', timeout)).click({ timeout });
      return page.evaluate(() =>
        document.body.classList.contains('overlay') || !!document.querySelector('.overlay'));
    }
    case 'screenshot': {
      // Settle images and fonts so the picture does not depend on load timing.
      await page.waitForLoadState('load', { timeout });
      await page.evaluate(() => document.fonts.ready);
      await page.screenshot({
        path: action.path,
        fullPage: !!action.fullPage,
        animations: 'disabled',
        caret: 'hide',
        mask: (action.mask ?? []).map((s) => page.locator(s)),
        maskColor: '#FF00FF',
        timeout,
      });
      return { path: action.path };
    }
    case 'forge': {
      await page.goto(action.url, { timeout, waitUntil: 'load' });
      const result = await navigation(page, timeout, () =>
        page.evaluate(({ target, fields }) => {
          const form = document.createElement('form');
          form.method = 'POST';
          form.action = target;
          for (const [name, value] of Object.entries(fields ?? {})) {
            const input = document.createElement('input');
            input.type = 'hidden';
            input.name = name;
            input.value = value;
            form.appendChild(input);
          }
          document.body.appendChild(form);
          form.submit();
        }, { target: new URL(action.action, plan.base).href, fields: action.fields }));
      const body = await page.evaluate(() => document.body ? document.body.innerText : '');
      return { ...result, body: body.slice(0, 2000) };
    }
    default:
      throw new Error(`unknown action "${action.do}"`);
  }
}

async function main() {
  let plan;
  try {
    plan = JSON.parse(readFileSync(process.argv[2], 'utf8'));
  } catch (e) {
    return { ok: false, error: `cannot read the plan: ${e.message}` };
  }
  const timeout = plan.timeoutMs ?? 10000;
  const results = [];
  const saved = {};
  let browser;
  // A last guard: whatever hangs, the driver ends and says so.
  const guard = setTimeout(() => {
    console.log(JSON.stringify({ ok: false, error: 'the driver ran out of time', results, named: saved }));
    process.exit(1);
  }, plan.totalTimeoutMs ?? 45000);
  try {
    browser = await chromium.launch({
      executablePath: '/usr/bin/chromium',
      args: BROWSER_ARGS,
      timeout,
    });
    const context = await browser.newContext({
      viewport: plan.viewport ?? { width: 1280, height: 800 },
      deviceScaleFactor: 1,
      locale: 'en-US',
      timezoneId: 'UTC',
      colorScheme: 'light',
      reducedMotion: 'reduce',
    });
    context.setDefaultTimeout(timeout);
    context.setDefaultNavigationTimeout(timeout);
    const page = await context.newPage();
    for (const [index, raw] of (plan.actions ?? []).entries()) {
      let action;
      try {
        action = substitute(raw, saved);
        const result = await perform(page, plan, action, timeout);
        results.push(result);
        if (action.as) saved[action.as] = result;
      } catch (e) {
        const where = `action ${index + 1} (${raw.do}${raw.selector ? ' ' + raw.selector : ''})`;
        const message = String(e.message ?? e).split('\n')[0];
        return { ok: false, error: `${where} failed at ${page.url()}: ${message}`, results, named: saved };
      }
    }
    return { ok: true, results, named: saved };
  } catch (e) {
    return { ok: false, error: String(e.message ?? e).split('\n')[0], results, named: saved };
  } finally {
    clearTimeout(guard);
    if (browser) await browser.close().catch(() => {});
  }
}

const outcome = await main();
console.log(JSON.stringify(outcome));
process.exit(outcome.ok ? 0 : 1);
