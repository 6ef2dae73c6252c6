#!/usr/bin/env node
// Runs an ONNX model on ONNX Runtime (the Node package) as the reference of
// scripts/check_real_models.sh and bench/compare_ort.sh.
//
//   node scripts/ort_run.js --model M.onnx --net-json NET.json --batch N
//        --inputs-dir DIR --outputs-dir DIR [--threads 2] [--warmup 1]
//        [--repeat 1] [--seed 1]
//
// The input names and dims come from the net description our importer wrote
// (NET.json), with dim 0 set to the batch. An input file DIR/<name>.f32 (raw
// little-endian float32, the name with characters other than [A-Za-z0-9_.-]
// as "_") is read when it exists, otherwise filled with seeded normal values
// and written. Outputs of the last run go to the outputs dir the same way.
// Prints one JSON line: milliseconds per run, images per second, outputs.
//
// ORT_NODE_MODULES (default /work/ort/node_modules) holds onnxruntime-node.
'use strict';
const fs = require('fs');
const path = require('path');

const modules = process.env.ORT_NODE_MODULES || '/work/ort/node_modules';
const ort = require(path.join(modules, 'onnxruntime-node'));

function parseArgs(argv) {
  const a = {threads: 2, warmup: 1, repeat: 1, seed: 1, batch: 0};
  for (let i = 2; i < argv.length; i += 2) {
    const key = argv[i].replace(/^--/, '').replace(/-([a-z])/g, (_, c) => c.toUpperCase());
    if (i + 1 >= argv.length) throw new Error(`missing value for ${argv[i]}`);
    a[key] = ['model', 'netJson', 'inputsDir', 'outputsDir'].includes(key) ? argv[i + 1]
                                                                             : Number(argv[i + 1]);
  }
  for (const k of ['model', 'netJson', 'inputsDir', 'outputsDir']) {
    if (!a[k]) throw new Error(`--${k.replace(/[A-Z]/g, c => '-' + c.toLowerCase())} is required`);
  }
  return a;
}

function fileName(name) { return name.replace(/[^A-Za-z0-9_.-]/g, '_') + '.f32'; }

// Through FILE.tmp.<pid> and a rename: an interrupted run leaves no partial file.
function writeFileAtomically(file, data) {
  const tmp = `${file}.tmp.${process.pid}`;
  try {
    fs.writeFileSync(tmp, data);
    fs.renameSync(tmp, file);
  } catch (e) {
    fs.rmSync(tmp, {force: true});
    throw e;
  }
}

// mulberry32 and Box-Muller: the same values on every machine.
function normals(count, seed) {
  let s = seed >>> 0;
  const next = () => {
    s = (s + 0x6D2B79F5) >>> 0;
    let t = s;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return (((t ^ (t >>> 14)) >>> 0) + 0.5) / 4294967296;
  };
  const v = new Float32Array(count);
  for (let k = 0; k < count; k += 2) {
    const r = Math.sqrt(-2 * Math.log(next())), th = 2 * Math.PI * next();
    v[k] = r * Math.cos(th);
    if (k + 1 < count) v[k + 1] = r * Math.sin(th);
  }
  return v;
}

async function main() {
  const a = parseArgs(process.argv);
  const net = JSON.parse(fs.readFileSync(a.netJson, 'utf8'));
  fs.mkdirSync(a.inputsDir, {recursive: true});
  fs.mkdirSync(a.outputsDir, {recursive: true});
  const feeds = {};
  net.inputs.forEach((input, index) => {
    const dims = input.dims.slice();
    if (a.batch > 0) dims[0] = a.batch;
    const count = dims.reduce((x, y) => x * y, 1);
    const file = path.join(a.inputsDir, fileName(input.name));
    let data;
    if (fs.existsSync(file)) {
      const bytes = fs.readFileSync(file);
      if (bytes.length !== count * 4) {
        throw new Error(`${file} holds ${bytes.length / 4} floats, expected ${count}`);
      }
      data = new Float32Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length));
    } else {
      data = normals(count, a.seed + 7919 * index);
      writeFileAtomically(file, Buffer.from(data.buffer));
    }
    feeds[input.name] = new ort.Tensor('float32', data, dims);
  });
  const session = await ort.InferenceSession.create(a.model, {
    intraOpNumThreads: a.threads,
    interOpNumThreads: 1,
    executionMode: 'sequential',
    graphOptimizationLevel: 'all',
  });
  let results;
  for (let k = 0; k < a.warmup; ++k) results = await session.run(feeds);
  const start = process.hrtime.bigint();
  for (let k = 0; k < a.repeat; ++k) results = await session.run(feeds);
  const ms = Number(process.hrtime.bigint() - start) / 1e6 / Math.max(a.repeat, 1);
  const outputs = [];
  for (const name of session.outputNames) {
    const t = results[name];
    const data = Float32Array.from(t.data);
    writeFileAtomically(path.join(a.outputsDir, fileName(name)), Buffer.from(data.buffer));
    outputs.push({name, dims: t.dims});
  }
  const batch = a.batch > 0 ? a.batch : net.inputs[0].dims[0];
  console.log(JSON.stringify({ms_per_run: ms, images_per_s: batch * 1000 / ms, outputs}));
}

main().catch(e => {
  console.error(`ort_run.js: ${e.message}`);
  process.exit(1);
});
