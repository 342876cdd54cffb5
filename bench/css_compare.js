// node css_compare.js TOOL OUT FILE...: minifies each FILE with TOOL
// (esbuild, lightningcss or csso) in-process, over and over for at least two
// seconds, and prints {"mbps": ..., "bytes": ...}; OUT receives the outputs
// of one pass, concatenated. Modules come from the bench folder's
// node_modules (NODE_PATH).
'use strict';
const fs = require('fs');

const [tool, outFile, ...files] = process.argv.slice(2);
const sheets = files.map((f) => fs.readFileSync(f));
const total = sheets.reduce((n, s) => n + s.length, 0);

let minify;
if (tool === 'esbuild') {
  const esbuild = require('esbuild');
  minify = (buf) => esbuild.transformSync(buf.toString('utf8'), {loader: 'css', minify: true}).code;
} else if (tool === 'lightningcss') {
  const lightningcss = require('lightningcss');
  minify = (buf, name) => lightningcss.transform({filename: name, code: buf, minify: true}).code;
} else if (tool === 'csso') {
  const csso = require('csso');
  minify = (buf) => csso.minify(buf.toString('utf8')).css;
} else {
  console.error('unknown tool ' + tool);
  process.exit(2);
}

const outputs = sheets.map((s, i) => Buffer.from(minify(s, files[i])));
fs.writeFileSync(outFile, Buffer.concat(outputs));

let passes = 0;
const start = process.hrtime.bigint();
let elapsed = 0;
while (elapsed < 2.0) {
  for (let i = 0; i < sheets.length; i++) minify(sheets[i], files[i]);
  passes++;
  elapsed = Number(process.hrtime.bigint() - start) / 1e9;
}
const bytes = outputs.reduce((n, o) => n + o.length, 0);
console.log(JSON.stringify({mbps: (total * passes) / elapsed / 1e6, bytes}));
