// Times pixelmatch (with pngjs decoding) and odiff (its server mode, so process start-up is not
// counted) on pairs of PNG files, PNG decoding included for both. Run pinned to one core.
// Usage: node compare-tools.mjs <tools-prefix> <iterations> <base.png> <other.png> [...pairs]
// Prints one JSON object per pair and tool on stdout:
//   {"tool":"pixelmatch","base":...,"other":...,"ms":12.3,"differentPixels":45}
import { createRequire } from 'node:module';
import { readFileSync } from 'node:fs';
import path from 'node:path';

const [prefix, iterationText, ...files] = process.argv.slice(2);
const require = createRequire(path.join(prefix, 'node_modules', 'noop.js'));
const { PNG } = require('pngjs');
const pixelmatch = (await import(path.join(prefix, 'node_modules', 'pixelmatch', 'index.js'))).default;
const { ODiffServer } = require('odiff-bin/server.js');
const iterations = Math.max(1, Number(iterationText) || 1);

function runPixelmatch(a, b) {
  const imageA = PNG.sync.read(readFileSync(a));
  const imageB = PNG.sync.read(readFileSync(b));
  if (imageA.width !== imageB.width || imageA.height !== imageB.height) return -1;
  return pixelmatch(imageA.data, imageB.data, null, imageA.width, imageA.height, { threshold: 0.1 });
}

const server = new ODiffServer();
const diffPath = path.join(process.env.TMPDIR || '/tmp', `saffra-bench-odiff-${process.pid}.png`);
async function runOdiff(a, b) {
  const result = await server.compare(a, b, diffPath, { threshold: 0.1, antialiasing: true });
  return result.match ? 0 : (result.diffCount ?? -1);
}

async function time(fn) {
  await fn();  // warm-up: JIT, caches, server start
  let best = Infinity, total = 0, last = 0;
  for (let i = 0; i < iterations; ++i) {
    const start = process.hrtime.bigint();
    last = await fn();
    const ms = Number(process.hrtime.bigint() - start) / 1e6;
    total += ms;
    best = Math.min(best, ms);
  }
  return { ms: total / iterations, best, differentPixels: last };
}

for (let i = 0; i + 1 < files.length; i += 2) {
  const [base, other] = [files[i], files[i + 1]];
  for (const [tool, fn] of [['pixelmatch', () => runPixelmatch(base, other)],
                            ['odiff', () => runOdiff(base, other)]]) {
    const r = await time(fn);
    console.log(JSON.stringify({ tool, base, other, ...r }));
  }
}
server.stop?.();
process.exit(0);
