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
//   tap        {selector}                 clicks without waiting for a page to load
//   key        {key, navigates}           presses a key (Playwright's names: "j", "ArrowDown", "?");
//                                         with navigates: true, waits for the page it loads
//                                         -> {status, path}
//   type       {selector, text}           clicks a field and types into it key by key
//   drag       {selector, from, to}       drags the mouse across the element; from and to are
//                                         [x, y] fractions of its box
//   eval       {script}                   -> the value of a JavaScript expression in the page
//   until      {script}                   waits until the expression is truthy -> its value
//   review                                -> the review page's state: {focused, status, counts,
//                                            test, zoom, view, currentWidth, naturalWidth, shown}
//   openTiming {path}                     opens a review page -> {ms}: from the start of the
//                                         navigation until the focused step's current image shows
//   nextTiming {key}                      -> {ms, from, to}: from the key until the next step's
//                                         current image shows
//   screenshot {path, fullPage, mask}     -> {path}; mask: selectors painted over
//   forge      {url, action, fields}      opens `url` (another origin), builds a POST form to
//                                         `action` there and submits it -> {status, path, body}
// An action with "as": "name" keeps its result under that name in "named"; "${name}" in later
// string fields is replaced by it. The outcome also counts the dialogs (alert, confirm) that
// pages opened ("dialogs"): a page that runs injected markup opens one.
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
          // Images load when shown: those on screen have loaded.
          loaded: [...s.querySelectorAll('img')].filter((i) => i.offsetParent !== null)
            .every((i) => i.complete && i.naturalWidth > 0),
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
    case 'tap':
      await (await first(page, action.selector, timeout)).click({ timeout });
      return null;
    case 'key':
      if (action.navigates) return navigation(page, timeout, () => page.keyboard.press(action.key));
      await page.keyboard.press(action.key);
      return null;
    case 'type': {
      await (await first(page, action.selector, timeout)).click({ timeout });
      await page.keyboard.type(action.text);
      return null;
    }
    case 'drag': {
      const box = await (await first(page, action.selector, timeout)).boundingBox();
      const at = ([x, y]) => [box.x + box.width * x, box.y + box.height * y];
      await page.mouse.move(...at(action.from));
      await page.mouse.down();
      await page.mouse.move(...at(action.to), { steps: 5 });
      await page.mouse.up();
      return null;
    }
    case 'eval':
      return page.evaluate(action.script);
    case 'until': {
      const end = Date.now() + timeout;
      for (;;) {
        const value = await page.evaluate(action.script);
        if (value) return value;
        if (Date.now() > end) {
          const said = await page.evaluate(() => document.getElementById('message')?.textContent ?? '');
          throw new Error(`timed out waiting for ${action.script}${said ? ` (the page says: ${said})` : ''}`);
        }
        await new Promise((resolve) => setTimeout(resolve, 20));
      }
    }
    case 'review':
      return page.evaluate(reviewState);
    case 'openTiming': {
      await page.goto(new URL(action.path, plan.base).href, { timeout, waitUntil: 'domcontentloaded' });
      const ms = await page.evaluate(() => new Promise((resolve) => {
        (function check() {
          const img = document.querySelector('section.step.focused img.current');
          if (img && img.complete && img.naturalWidth > 0) resolve(performance.now());
          else requestAnimationFrame(check);
        })();
      }));
      await page.waitForLoadState('load', { timeout });
      return { ms };
    }
    case 'nextTiming':
      return page.evaluate((key) => new Promise((resolve) => {
        const focused = () => document.querySelector('li.item.focused');
        const from = focused();
        const start = performance.now();
        document.dispatchEvent(new KeyboardEvent('keydown', { key, bubbles: true, cancelable: true }));
        (function check() {
          const img = document.querySelector('section.step.focused img.current');
          if (focused() !== from && img && img.complete && img.naturalWidth > 0) {
            resolve({ ms: performance.now() - start, from: Number(from.dataset.step),
                      to: Number(focused().dataset.step) });
          } else {
            requestAnimationFrame(check);
          }
        })();
      }), action.key);
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

// The state of a review page as a person sees it.
function reviewState() {
  const focused = document.querySelector('li.item.focused');
  const section = document.querySelector('section.step.focused');
  const img = (kind) => section && section.querySelector('img.' + kind);
  const loaded = (i) => !!i && i.complete && i.naturalWidth > 0 && i.offsetParent !== null;
  const counts = {};
  document.querySelectorAll('#counts a.count').forEach((a) => {
    counts[a.dataset.status || 'all'] = Number(a.querySelector('b').textContent);
  });
  const statuses = {};
  document.querySelectorAll('li.item').forEach((li) => { statuses[li.dataset.step] = li.dataset.status; });
  const steps = document.getElementById('steps');
  return {
    focused: focused ? Number(focused.dataset.step) : 0,
    focusedShown: !!section && section.offsetParent !== null,
    sectionsShown: [...document.querySelectorAll('section.step')].filter((s) => s.offsetParent !== null).length,
    statuses,
    counts,
    test: document.getElementById('test-status').textContent,
    zoom: document.getElementById('zoom-level').textContent,
    view: [...steps.classList].filter((c) => c.startsWith('view-')).join(' '),
    currentWidth: img('current') ? Math.round(img('current').getBoundingClientRect().width) : 0,
    naturalWidth: img('current') ? img('current').naturalWidth : 0,
    shown: { baseline: loaded(img('baseline')), current: loaded(img('current')), diff: loaded(img('diff')) },
    message: document.getElementById('message').textContent,
    help: document.getElementById('help').open,
  };
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
  let dialogs = 0;
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
    page.on('dialog', (dialog) => {
      dialogs += 1;
      dialog.dismiss().catch(() => {});
    });
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
        return { ok: false, error: `${where} failed at ${page.url()}: ${message}`, results, named: saved, dialogs };
      }
    }
    return { ok: true, results, named: saved, dialogs };
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
