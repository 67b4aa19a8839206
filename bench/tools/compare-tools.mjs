// Times pixelmatch with pngjs on pairs of PNG files: read, decode both, compare at its default
// threshold with anti-aliasing detection. Reports the mean CPU time of the process per
// comparison (run it pinned to one core) after one warm-up run.
// Usage: node compare-tools.mjs <tools-prefix> <iterations> <base.png> <other.png> [...pairs]
// Prints one JSON object per pair on stdout:
//   {"tool":"pixelmatch","base":...,"other":...,"ms":12.3,"wallMs":12.5,"differentPixels":45}
import { createRequire } from 'node:module';
import { readFileSync } from 'node:fs';
import path from 'node:path';

const [prefix, iterationText, ...files] = process.argv.slice(2);
const require = createRequire(path.join(prefix, 'node_modules', 'noop.js'));
const { PNG } = require('pngjs');
const pixelmatch = (await import(path.join(prefix, 'node_modules', 'pixelmatch', 'index.js'))).default;
const iterations = Math.max(1, Number(iterationText) || 1);

function compare(a, b) {
  const imageA = PNG.sync.read(readFileSync(a));
  const imageB = PNG.sync.read(readFileSync(b));
  if (imageA.width !== imageB.width || imageA.height !== imageB.height) return -1;
  return pixelmatch(imageA.data, imageB.data, null, imageA.width, imageA.height, { threshold: 0.1 });
}

for (let i = 0; i + 1 < files.length; i += 2) {
  const [base, other] = [files[i], files[i + 1]];
  compare(base, other);  // warm-up: JIT and file cache
  let differentPixels = 0;
  const cpu = process.cpuUsage();
  const wall = process.hrtime.bigint();
  for (let k = 0; k < iterations; ++k) differentPixels = compare(base, other);
  const used = process.cpuUsage(cpu);
  const ms = (used.user + used.system) / 1000 / iterations;
  const wallMs = Number(process.hrtime.bigint() - wall) / 1e6 / iterations;
  console.log(JSON.stringify({ tool: 'pixelmatch', base, other, ms, wallMs, differentPixels }));
}
