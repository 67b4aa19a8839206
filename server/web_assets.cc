// The style sheet and the script of the results pages, served from /app/static/.
#include <string_view>

#include "server/web_pages.h"

namespace saffra::server {

namespace {

constexpr std::string_view kStyle = R"css(
:root{--ink:#1f2328;--muted:#59636e;--line:#d1d9e0;--bg:#f6f8fa;--focus:#0969da;
  --changed:#bc4c00;--new:#0969da;--accepted:#1a7f37;--rejected:#cf222e;--matched:#59636e}
*{box-sizing:border-box}
body{margin:0;color:var(--ink);background:#fff;
  font-family:system-ui,-apple-system,"Segoe UI",Roboto,"Helvetica Neue",Arial,sans-serif;
  font-size:14px;line-height:1.4}
a{color:#0b5cad}
.bar{background:var(--bg);border-bottom:1px solid var(--line);padding:.5em 1.2em}
.bar .home{font-weight:600;text-decoration:none;color:var(--ink)}
main{padding:.6em 1.2em}
h1{font-size:1.35em;margin:.2em 0}h2{font-size:1.05em;margin:0}
html:not(.js) .js-only{display:none}
.status{display:inline-block;padding:.1em .6em;border-radius:.3em;color:#fff;font-weight:600;
  background:#59636e}
.status.Passed{background:#1a7f37}.status.Unresolved{background:#bc4c00}
.status.Failed{background:#cf222e}.status.Running{background:#59636e}
.title{display:flex;flex-wrap:wrap;gap:.8em;align-items:center}
.note{color:var(--muted)}
dl.facts{display:flex;flex-wrap:wrap;gap:.2em 1.4em;margin:.3em 0 .6em}
dl.facts div{display:flex;gap:.4em}dl.facts dt{color:var(--muted)}dl.facts dd{margin:0}
table{border-collapse:collapse}
th,td{padding:.3em .8em;text-align:left;border-bottom:1px solid var(--line)}
td.num,th.num{text-align:right}
form.search{display:flex;gap:.5em;margin:.6em 0}
form.search input{font:inherit;padding:.3em .5em;min-width:22em}
.tally{display:inline-block;padding:0 .45em;border-radius:.3em;color:#fff;font-size:.9em;
  background:#59636e}
.tally.Passed{background:#1a7f37}.tally.Unresolved{background:#bc4c00}
.tally.Failed{background:#cf222e}
.batch-state{font-size:.9em;padding:0 .45em;border:1px solid var(--line);border-radius:.3em}
.batch-state.closed,.batch-state.finished{border-color:#1a7f37;color:#1a7f37}
.batch-state.running{border-color:#bc4c00;color:#bc4c00}
.pager{display:flex;gap:1em;margin:.8em 0;color:var(--muted)}
#counts{display:flex;flex-wrap:wrap;gap:.4em;margin:.4em 0}
#counts a{text-decoration:none;color:var(--ink);border:1px solid var(--line);border-radius:1em;
  padding:.1em .7em}
#counts a[aria-current]{border-color:var(--focus);background:#ddf4ff}
#counts a[data-status=mismatched] b,#counts a[data-status=missing] b{color:var(--changed)}
#counts a[data-status=new] b{color:var(--new)}#counts a[data-status=accepted] b{color:var(--accepted)}
#counts a[data-status=rejected] b{color:var(--rejected)}
.toolbar{display:flex;flex-wrap:wrap;gap:.6em;align-items:center;margin:.5em 0}
.toolbar [role=group]{display:inline-flex;align-items:center}
.toolbar [role=group] button{border-radius:0;margin-left:-1px}
.toolbar [role=group] button:first-child{border-radius:.3em 0 0 .3em}
.toolbar [role=group] button:last-child{border-radius:0 .3em .3em 0}
#zoom-level{display:inline-block;min-width:3.5em;text-align:center;border-top:1px solid var(--line);
  border-bottom:1px solid var(--line);padding:.3em 0}
#step-search{font:inherit;padding:.3em .5em;width:12em}
#message{color:#cf222e}
form.review,form.undo,.batch-actions form{display:inline}
#batch-accept{background:#1a7f37;border-color:#1a7f37;color:#fff}
button{font:inherit;padding:.3em .9em;border:1px solid var(--line);border-radius:.3em;
  background:var(--bg);cursor:pointer;color:var(--ink)}
button:disabled{cursor:default;opacity:.5}
button[aria-pressed=true]{background:#ddf4ff;border-color:var(--focus)}
button.accept,#accept-all{background:#1a7f37;border-color:#1a7f37;color:#fff}
button.reject{background:#cf222e;border-color:#cf222e;color:#fff}
:focus-visible{outline:2px solid var(--focus);outline-offset:1px}
.review{display:grid;grid-template-columns:17em minmax(0,1fr);gap:1em;align-items:start}
#step-list{position:sticky;top:.4em;max-height:calc(100vh - .8em);overflow:auto;
  border:1px solid var(--line);border-radius:.3em}
#step-list ol{list-style:none;margin:0;padding:0}
#step-list summary{padding:.35em .5em;cursor:pointer;color:var(--muted);border-top:1px solid var(--line)}
li.item a{display:grid;grid-template-columns:40px 2em minmax(0,1fr) auto;gap:.4em;align-items:center;
  padding:.2em .4em;color:var(--ink);text-decoration:none;border-left:3px solid transparent}
li.item a:hover{background:var(--bg)}
li.item.focused a{background:#ddf4ff;border-left-color:var(--focus)}
.thumb{display:block;width:40px;height:28px;object-fit:cover;object-position:top;
  border:1px solid var(--line);background:var(--bg)}
li.item .no{color:var(--muted);text-align:right}
li.item .name{overflow:hidden;text-overflow:ellipsis;white-space:nowrap}
.state{font-size:.8em;padding:0 .4em;border-radius:.3em;border:1px solid var(--line);white-space:nowrap}
[data-status=mismatched] .state,[data-status=missing] .state{border-color:var(--changed);color:var(--changed)}
[data-status=new] .state{border-color:var(--new);color:var(--new)}
[data-status=accepted] .state{border-color:var(--accepted);background:var(--accepted);color:#fff}
[data-status=rejected] .state{border-color:var(--rejected);background:var(--rejected);color:#fff}
[data-status=matched] .state{color:var(--matched)}
section.step{border-top:1px solid var(--line);padding:.6em 0}
.step-head{display:flex;flex-wrap:wrap;gap:.7em;align-items:center;margin-bottom:.4em}
.step-head .no{color:var(--muted)}
.step-head .decide{margin-left:auto;display:flex;gap:.4em}
.level{color:var(--muted);font-size:.9em}
.step.busy{opacity:.6}
.changes p{margin:.2em 0}
.changes .boxes{display:flex;flex-wrap:wrap;gap:.3em;list-style:none;margin:.2em 0 .4em;padding:0}
.changes .boxes button{font-size:.85em;padding:.05em .5em}
.viewer{display:flex;flex-wrap:wrap;gap:1em;align-items:flex-start;position:relative}
figure{margin:0;max-width:420px;position:relative}
figcaption{color:var(--muted);font-size:.85em;margin-bottom:.2em}
.pane{position:relative;overflow:auto;border:1px solid var(--line);background:
  repeating-conic-gradient(#f0f0f0 0 25%,#fff 0 50%) 0 0/16px 16px}
.canvas{position:relative;line-height:0}
.canvas img{display:block;width:100%;height:auto}
.canvas svg{position:absolute;left:0;top:0;width:100%;height:100%;pointer-events:none}
.change{fill:#cf222e;fill-opacity:.12;stroke:#cf222e;stroke-width:2}
.change.flash{fill-opacity:.35;stroke-width:4}
.region rect{fill-opacity:.18;stroke-width:2}
.region text{font-family:inherit;fill-opacity:1}
.region[data-kind=ignore] rect{fill:#8250df;stroke:#8250df}.region[data-kind=ignore] text{fill:#8250df}
.region[data-kind=layout] rect{fill:#0969da;stroke:#0969da}.region[data-kind=layout] text{fill:#0969da}
.region[data-kind=strict] rect{fill:#cf222e;stroke:#cf222e}.region[data-kind=strict] text{fill:#cf222e}
.region[data-kind=content] rect{fill:#1a7f37;stroke:#1a7f37}.region[data-kind=content] text{fill:#1a7f37}
.region[data-kind=floating] rect{fill:#bc4c00;stroke:#bc4c00}.region[data-kind=floating] text{fill:#bc4c00}
.region[data-kind=accessibility] rect{fill:#bf3989;stroke:#bf3989}
.region[data-kind=accessibility] text{fill:#bf3989}
.js #steps section.step:not(.focused){display:none}
.js #steps section.step{border-top:0;padding-top:0}
.js #matched-steps>summary{display:none}
.js figure{max-width:none;flex:1 1 0;min-width:0}
.js .viewer{flex-wrap:nowrap}
.js .pane{max-height:calc(100vh - 7em);width:fit-content;max-width:100%}
.js .zoomed .pane{cursor:grab}
.js .zoomed .canvas img{image-rendering:pixelated}
.js .step .blend{display:none}
.js .view-side .shot-diff{display:none}
.view-diff .shot-baseline,.view-diff .shot-current{display:none}
.view-overlay .viewer,.view-blink .viewer,.view-swipe .viewer{display:grid;
  grid-template-columns:minmax(0,max-content);width:fit-content;max-width:100%}
.view-overlay .shot-baseline,.view-overlay .shot-current,.view-blink .shot-baseline,
.view-blink .shot-current,.view-swipe .shot-baseline,.view-swipe .shot-current{grid-area:1/1}
.view-overlay .shot-diff,.view-blink .shot-diff,.view-swipe .shot-diff{display:none}
.view-overlay figcaption,.view-blink figcaption,.view-swipe figcaption{position:absolute;top:.3em;
  z-index:3;margin:0;padding:0 .5em;background:rgba(255,255,255,.9);border-radius:.3em}
.shot-baseline figcaption{left:.3em}.shot-current figcaption{right:.3em}
.view-overlay .shot-current figcaption{display:none}
.js .view-overlay .step .blend{display:inline-flex;gap:.5em;align-items:center;margin-bottom:.4em}
.view-blink.blink-baseline .shot-current{visibility:hidden}
.view-blink:not(.blink-baseline) .shot-baseline figcaption{visibility:hidden}
.js .divider{display:none}
.view-swipe .divider{display:block;position:absolute;top:0;bottom:0;left:50%;width:4px;
  margin-left:-2px;background:var(--focus);cursor:ew-resize;z-index:4}
.view-swipe .viewer{cursor:ew-resize;touch-action:none}
dialog#help{border:1px solid var(--line);border-radius:.5em;padding:1em 1.4em;max-width:34em}
dialog#help::backdrop{background:rgba(0,0,0,.3)}
dialog#help th{white-space:nowrap}
kbd{font-family:ui-monospace,monospace;font-size:.9em;border:1px solid var(--line);
  border-bottom-width:2px;border-radius:.3em;padding:0 .3em;background:#fff}
form#login{display:flex;flex-direction:column;gap:.6em;max-width:22em}
form#login input{font:inherit;padding:.4em}
.message{color:#cf222e}
)css";

constexpr std::string_view kScript = R"js(
'use strict';
// The review page: one step at a time, chosen from the step list or with the keyboard;
// decisions posted without reloading the page (the same form post the buttons make without
// script), counts kept true after each one; views (side by side, overlay, blink, swipe,
// differences), zoom with synchronised panning, and jumps to the changed areas.
// Loaded in the head, before the body is parsed: with the "js" class set at once, the page
// never starts loading the images of steps that the script will not show.
document.documentElement.classList.add('js');
document.addEventListener('DOMContentLoaded', function () {
  var root = document.getElementById('steps');
  if (root) reviewPage(root);
  // u undoes the reader's last decision, on every page that offers it (a plain form post: the
  // page comes back as it was before that decision).
  var undo = document.getElementById('undo-button');
  if (undo) document.addEventListener('keydown', function (e) {
    if (e.key !== 'u' || e.defaultPrevented || e.ctrlKey || e.metaKey || e.altKey) return;
    var t = e.target, help = document.getElementById('help');
    if (t && (t.isContentEditable || /^(INPUT|TEXTAREA|SELECT)$/.test(t.tagName))) return;
    if ((help && help.open) || undo.disabled) return;
    e.preventDefault();
    undo.form.requestSubmit(undo);
  });
});

function reviewPage(root) {
  var VIEWS = ['side', 'overlay', 'blink', 'swipe', 'diff'];
  var ZOOMS = [0, 1, 2, 4, 8];  // 0 fits the image to its pane
  var OPEN = { mismatched: true, 'new': true, missing: true };
  var LABELS = { mismatched: 'changed' };
  var list = document.getElementById('step-list');
  var matchedList = document.getElementById('matched-list');
  var matchedSteps = document.getElementById('matched-steps');
  var search = document.getElementById('step-search');
  var help = document.getElementById('help');
  var message = document.getElementById('message');
  var zoomLevel = document.getElementById('zoom-level');
  var items = Array.prototype.slice.call(list.querySelectorAll('li.item'));
  var itemOf = {}, sectionOf = {};
  items.forEach(function (li) { itemOf[li.dataset.step] = li; });
  root.querySelectorAll('section.step').forEach(function (s) {
    sectionOf[s.dataset.step] = s;
    s.hidden = false;  // the list filters; sections show when focused
  });
  var state = { view: 'side', zoom: 0, focused: null, filter: '', blink: 0, swipe: 50 };
  var current = document.querySelector('#counts a[aria-current]');
  if (current) state.filter = current.dataset.status;

  function section(li) { return li ? sectionOf[li.dataset.step] : null; }
  function focusedSection() { return section(state.focused); }
  function panes(s) { return s ? Array.prototype.slice.call(s.querySelectorAll('.pane')) : []; }
  function shown(li) {
    return !li.hidden && !(matchedList && matchedList.contains(li) && !matchedList.open);
  }
  function visible() { return items.filter(shown); }
  function label(status) { return LABELS[status] || status; }
  function say(text) { message.textContent = text || ''; }

  function focus(li) {
    if (!li) return;
    var old = state.focused;
    if (old) {
      old.classList.remove('focused');
      old.removeAttribute('aria-current');
      section(old).classList.remove('focused');
    }
    state.focused = li;
    li.classList.add('focused');
    li.setAttribute('aria-current', 'step');
    if (matchedList && matchedList.contains(li)) matchedList.open = true;
    var s = section(li);
    if (matchedSteps && matchedSteps.contains(s)) matchedSteps.open = true;
    s.classList.add('focused');
    li.scrollIntoView({ block: 'nearest' });
    history.replaceState(null, '', '#step-' + li.dataset.step);
    say('');
    applyZoom();
    applyView();
    prefetch(li);
  }
  // Fetches the next step's images ahead, so moving on shows them at once.
  function prefetch(li) {
    var all = visible(), next = all[all.indexOf(li) + 1];
    if (!next) return;
    section(next).querySelectorAll('.canvas img').forEach(function (img) {
      var copy = new Image();
      copy.decoding = 'async';
      copy.src = img.currentSrc || img.src;
    });
  }
  function move(by) {
    var all = visible();
    if (!all.length) return;
    var at = all.indexOf(state.focused);
    focus(all[Math.max(0, Math.min(all.length - 1, at < 0 ? 0 : at + by))]);
  }
  function firstOf(status) {
    var li = items.filter(function (i) { return i.dataset.status === status; })[0];
    if (!li) { say('No ' + label(status) + ' step.'); return; }
    if (li.hidden) setFilter('');
    focus(li);
  }
  // After a decision: the next step that still needs one, else the first such step.
  function advance() {
    var all = visible(), at = all.indexOf(state.focused);
    var after = all.slice(at + 1).concat(all.slice(0, Math.max(at, 0)));
    var next = after.filter(function (li) { return OPEN[li.dataset.status]; })[0];
    if (next) focus(next);
  }

  function setFilter(status) {
    state.filter = status;
    document.querySelectorAll('#counts a.count').forEach(function (a) {
      if (a.dataset.status === status) a.setAttribute('aria-current', 'true');
      else a.removeAttribute('aria-current');
    });
    var url = new URL(location.href);
    if (status) url.searchParams.set('status', status); else url.searchParams.delete('status');
    history.replaceState(null, '', url.pathname + url.search + url.hash);
    applyFilter();
  }
  function applyFilter() {
    var text = search.value.trim().toLowerCase();
    items.forEach(function (li) {
      li.hidden = !((!state.filter || li.dataset.status === state.filter) &&
                    (!text || li.dataset.name.toLowerCase().indexOf(text) >= 0 ||
                     li.dataset.step === text));
    });
    if (state.filter === 'matched' && matchedList) matchedList.open = true;
    if (!state.focused || !shown(state.focused)) {
      var all = visible();
      focus(all.filter(function (li) { return OPEN[li.dataset.status]; })[0] || all[0]);
    }
  }

  function setView(view) {
    state.view = view;
    applyView();
  }
  function applyView() {
    VIEWS.forEach(function (v) { root.classList.toggle('view-' + v, v === state.view); });
    document.querySelectorAll('[data-view]').forEach(function (b) {
      b.setAttribute('aria-pressed', b.dataset.view === state.view ? 'true' : 'false');
    });
    clearInterval(state.blink);
    root.classList.remove('blink-baseline');
    if (state.view === 'blink') {
      state.blink = setInterval(function () { root.classList.toggle('blink-baseline'); }, 600);
    }
    var s = focusedSection();
    if (!s) return;
    var pane = s.querySelector('.shot-current .pane');
    var range = s.querySelector('.blend-range');
    if (pane) {
      pane.style.opacity = state.view === 'overlay' && range ? String(range.value / 100) : '';
      pane.style.clipPath = state.view === 'swipe' ? 'inset(0 0 0 ' + state.swipe + '%)' : '';
    }
    var divider = s.querySelector('.divider');
    if (divider) divider.style.left = state.swipe + '%';
  }

  function setZoom(zoom) {
    var s = focusedSection(), pane = s && visiblePane(s);
    // Keep the middle of what is shown in the middle.
    var mid = pane && pane.scrollWidth ? [(pane.scrollLeft + pane.clientWidth / 2) / pane.scrollWidth,
                                          (pane.scrollTop + pane.clientHeight / 2) / pane.scrollHeight] : null;
    state.zoom = zoom;
    applyZoom();
    if (mid && pane) {
      pane.scrollLeft = mid[0] * pane.scrollWidth - pane.clientWidth / 2;
      pane.scrollTop = mid[1] * pane.scrollHeight - pane.clientHeight / 2;
    }
  }
  function zoomBy(by) {
    var at = ZOOMS.indexOf(state.zoom);
    setZoom(ZOOMS[Math.max(0, Math.min(ZOOMS.length - 1, at + by))]);
  }
  function applyZoom() {
    var s = focusedSection();
    zoomLevel.textContent = state.zoom ? state.zoom * 100 + '%' : 'Fit';
    document.querySelector('[data-zoom=toggle]').textContent = state.zoom ? 'Fit' : '100%';
    root.classList.toggle('zoomed', state.zoom > 0);
    if (!s) return;
    s.querySelectorAll('.canvas').forEach(function (c) {
      var width = Number(c.dataset.width);
      // Fitted images shrink to their pane but never grow beyond their own size.
      c.style.width = state.zoom && width ? width * state.zoom + 'px' : '';
      c.style.maxWidth = !state.zoom && width ? width + 'px' : '';
    });
  }
  function visiblePane(s) {
    return panes(s).filter(function (p) { return p.offsetParent !== null; }).pop();
  }
  // Centres changed area `index` in every pane, at 100% when the image was fitted.
  function jumpToChange(index) {
    var s = focusedSection();
    var box = s && s.querySelectorAll('.boxes button.box')[index];
    if (!box) { say('No changed area in this step.'); return; }
    if (!state.zoom) setZoom(1);
    var x = Number(box.dataset.x) + Number(box.dataset.w) / 2;
    var y = Number(box.dataset.y) + Number(box.dataset.h) / 2;
    panes(s).forEach(function (p) {
      p.scrollLeft = x * state.zoom - p.clientWidth / 2;
      p.scrollTop = y * state.zoom - p.clientHeight / 2;
    });
    s.querySelectorAll('rect.change').forEach(function (r, i) {
      r.classList.toggle('flash', i === index);
    });
  }

  function decide(kind) {
    var s = focusedSection();
    var button = s && s.querySelector('button.' + kind);
    if (!button || button.disabled) return;
    post(button.form);
  }
  function post(form) {
    var s = form.closest('section.step');
    s.classList.add('busy');
    fetch(form.action, {
      method: 'POST',
      headers: { Accept: 'application/json' },
      body: new URLSearchParams(new FormData(form)),
      credentials: 'same-origin'
    }).then(function (reply) {
      return reply.json().then(function (body) { return { ok: reply.ok, status: reply.status, body: body }; });
    }).then(function (reply) {
      s.classList.remove('busy');
      if (!reply.ok) { say(reply.body.error || 'refused (' + reply.status + ')'); return; }
      update(reply.body);
      if (s === focusedSection()) advance();
    }).catch(function (e) {
      s.classList.remove('busy');
      say('The decision was not saved: ' + e.message);
    });
  }
  function update(reply) {
    (reply.steps || []).forEach(function (step) {
      var n = String(step.step), li = itemOf[n], s = sectionOf[n];
      if (li) {
        li.dataset.status = step.status;
        li.querySelector('.state').textContent = label(step.status);
      }
      if (s) {
        s.dataset.status = step.status;
        s.querySelector('.step-head .state').textContent = label(step.status);
        // The step's forms now decide on the state it has.
        s.querySelectorAll('input[name=state]').forEach(function (i) { i.value = step.status; });
      }
    });
    var allState = document.querySelector('#accept-all').form.querySelector('input[name=state]');
    if (allState && reply.state) allState.value = reply.state;
    var undo = document.getElementById('undo-button');
    if (undo && reply.decision) {
      undo.form.querySelector('input[name=decision]').value = reply.decision;
      undo.disabled = false;
    }
    var badge = document.getElementById('test-status');
    if (badge && reply.status) {
      badge.textContent = reply.status;
      badge.className = 'status ' + (/^(Passed|Unresolved|Failed|Running)$/.test(reply.status) ? reply.status : 'Other');
    }
    var counts = {};
    items.forEach(function (li) { counts[li.dataset.status] = (counts[li.dataset.status] || 0) + 1; });
    document.querySelectorAll('#counts a.count').forEach(function (a) {
      a.querySelector('b').textContent = a.dataset.status ? counts[a.dataset.status] || 0 : items.length;
    });
  }

  function toggleHelp() {
    if (help.open) help.close(); else help.showModal();
  }
  function toggleMatched() {
    if (!matchedList) return;
    matchedList.open = !matchedList.open;
    if (!shown(state.focused)) move(0);
  }

  document.addEventListener('keydown', function (e) {
    if (e.defaultPrevented || e.ctrlKey || e.metaKey || e.altKey) return;
    var t = e.target;
    if (t && (t.isContentEditable || /^(INPUT|TEXTAREA|SELECT)$/.test(t.tagName))) {
      if (e.key === 'Escape' && t === search) t.blur();
      return;
    }
    if (help.open && e.key !== '?') return;
    switch (e.key) {
      case 'j': case 'ArrowDown': case 'ArrowRight': move(1); break;
      case 'k': case 'ArrowUp': case 'ArrowLeft': move(-1); break;
      case 'a': decide('accept'); break;
      case 'r': decide('reject'); break;
      case 'v': setView(VIEWS[(VIEWS.indexOf(state.view) + 1) % VIEWS.length]); break;
      case 'z': setZoom(state.zoom ? 0 : 1); break;
      case '+': case '=': zoomBy(1); break;
      case '-': case '_': zoomBy(-1); break;
      case 'c': jumpToChange(0); break;
      case '1': firstOf('mismatched'); break;
      case '2': firstOf('new'); break;
      case '3': firstOf('missing'); break;
      case 'm': toggleMatched(); break;
      case '/': search.focus(); break;
      case '?': toggleHelp(); break;
      default: return;
    }
    e.preventDefault();
  });

  list.addEventListener('click', function (e) {
    var li = e.target.closest('li.item');
    if (!li) return;
    e.preventDefault();
    focus(li);
  });
  if (matchedList) matchedList.addEventListener('toggle', function () {
    if (!shown(state.focused)) move(0);
  });
  document.getElementById('counts').addEventListener('click', function (e) {
    var a = e.target.closest('a.count');
    if (!a) return;
    e.preventDefault();
    setFilter(a.dataset.status);
  });
  search.addEventListener('input', applyFilter);
  document.getElementById('help-button').addEventListener('click', toggleHelp);
  document.getElementById('help-close').addEventListener('click', function () { help.close(); });
  document.querySelectorAll('[data-view]').forEach(function (b) {
    b.addEventListener('click', function () { setView(b.dataset.view); });
  });
  document.querySelectorAll('[data-zoom]').forEach(function (b) {
    b.addEventListener('click', function () {
      var z = b.dataset.zoom;
      if (z === 'in') zoomBy(1); else if (z === 'out') zoomBy(-1); else setZoom(state.zoom ? 0 : 1);
    });
  });
  root.addEventListener('submit', function (e) {
    if (!e.target.matches('form.review')) return;
    e.preventDefault();
    post(e.target);
  });
  root.addEventListener('click', function (e) {
    var box = e.target.closest('button.box'), jump = e.target.closest('button.jump');
    if (box) jumpToChange(Number(box.dataset.box));
    else if (jump) jumpToChange(0);
  });
  root.addEventListener('input', function (e) {
    if (e.target.matches('input.blend-range')) applyView();
  });
  // Panes of a step scroll together, so baseline and current show the same place.
  var syncing = false;
  root.addEventListener('scroll', function (e) {
    var p = e.target;
    if (syncing || !p.classList || !p.classList.contains('pane')) return;
    syncing = true;
    panes(p.closest('section.step')).forEach(function (q) {
      if (q !== p) { q.scrollLeft = p.scrollLeft; q.scrollTop = p.scrollTop; }
    });
    syncing = false;
  }, true);
  // Dragging pans a zoomed image; in the swipe view it moves the divider.
  var drag = null;
  root.addEventListener('pointerdown', function (e) {
    var viewer = e.target.closest('.viewer');
    if (!viewer || e.button !== 0 || e.target.closest('a, button, input')) return;
    var pane = e.target.closest('.pane') || viewer.querySelector('.shot-current .pane');
    if (state.view !== 'swipe' && (!state.zoom || !pane)) return;
    drag = { viewer: viewer, pane: pane, x: e.clientX, y: e.clientY };
    viewer.setPointerCapture(e.pointerId);
    if (state.view === 'swipe') swipeTo(e.clientX);
    e.preventDefault();
  });
  root.addEventListener('pointermove', function (e) {
    if (!drag) return;
    if (state.view === 'swipe') { swipeTo(e.clientX); return; }
    drag.pane.scrollLeft -= e.clientX - drag.x;
    drag.pane.scrollTop -= e.clientY - drag.y;
    drag.x = e.clientX;
    drag.y = e.clientY;
  });
  root.addEventListener('pointerup', function () { drag = null; });
  root.addEventListener('pointercancel', function () { drag = null; });
  function swipeTo(clientX) {
    var rect = drag.viewer.getBoundingClientRect();
    if (!rect.width) return;
    state.swipe = Math.max(0, Math.min(100, (clientX - rect.left) / rect.width * 100));
    applyView();
  }

  var start = itemOf[(location.hash.match(/^#step-(\d+)$/) || [])[1]];
  if (start && start.hidden) start = null;
  applyFilter();
  if (start) focus(start);
  applyView();
}
)js";

}  // namespace

std::string_view pageStyleSheet() {
  return kStyle;
}

std::string_view pageScript() {
  return kScript;
}

}  // namespace saffra::server
