// The baseline for bench/image_bench.cc: spritesmith with its default
// engine (pixelsmith) builds one sheet per group of the same files, the
// JPEG groups exported as JPEG at quality 85, the others as PNG.
//
// usage: node spritesmith_bench.js GROUPS ITERATIONS NODE_MODULES
'use strict';
const fs = require('fs');
const path = require('path');

const [groupsFile, iterationsText, modules] = process.argv.slice(2);
const Spritesmith = require(path.join(modules, 'spritesmith'));
const groups = new Map();
for (const line of fs.readFileSync(groupsFile, 'utf8').split('\n')) {
  if (!line) continue;
  const [set, file] = line.split('\t');
  if (!groups.has(set)) groups.set(set, []);
  groups.get(set).push(file);
}

function build(set, files) {
  const jpeg = set === 'jpg' || set === 'png24';
  const exportOpts = jpeg ? {format: 'jpeg', quality: 85} : {format: 'png'};
  return new Promise((resolve, reject) => {
    Spritesmith.run({src: files, exportOpts}, (error, result) => {
      if (error) reject(error);
      else resolve(result.image.length);
    });
  });
}

async function main() {
  const iterations = Number(iterationsText);
  let images = 0;
  const sizes = new Map();
  for (const [set, files] of groups) sizes.set(set, await build(set, files));  // warm-up
  const start = process.hrtime.bigint();
  for (let i = 0; i < iterations; ++i) {
    for (const [set, files] of groups) {
      await build(set, files);
      images += files.length;
    }
  }
  const seconds = Number(process.hrtime.bigint() - start) / 1e9;
  for (const [set, files] of groups) {
    console.log(`  ${set.padEnd(5)} ${String(files.length).padStart(3)} images, sheet ${sizes.get(set)} bytes`);
  }
  console.log(`spritesmith: ${iterations} x ${images / iterations} images in ${seconds.toFixed(3)} s`);
  console.log(`RATE ${(images / seconds).toFixed(1)}`);
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});
