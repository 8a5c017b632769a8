// Times one ONNX Runtime session for bench_peer, pass by pass on request.
//
//   node bench/ort_time.js MODEL.onnx INPUT.f32 N C H W THREADS
//
// INPUT.f32 holds at least N x C x H x W little-endian floats (the first are taken). The session runs on the CPU provider
// with every graph optimisation, THREADS intra-op threads and one inter-op thread. Commands on
// standard input, one a line, each answered with one line: "run" (one pass; answers its
// milliseconds), "save PATH" (writes the last pass's outputs as floats, item by item and within
// an item the outputs in the model's order; answers their count),
// "quit". Answers "ready" once the session is built.
'use strict';
const fs = require('fs');
const readline = require('readline');
const ort = require('onnxruntime-node');

async function main() {
  const [model, inputPath, ...dims] = process.argv.slice(2);
  const [n, c, h, w, threads] = dims.map(Number);
  if (!model || !inputPath || dims.length !== 5 || [n, c, h, w, threads].some((v) => !(v > 0)))
    throw new Error('usage: ort_time.js MODEL.onnx INPUT.f32 N C H W THREADS');
  const bytes = fs.readFileSync(inputPath);
  const size = 4 * n * c * h * w;
  if (bytes.length < size)
    throw new Error(`${inputPath}: ${bytes.length} bytes, ${n} x ${c} x ${h} x ${w} floats take ${size}`);
  const data = new Float32Array(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + size));
  const session = await ort.InferenceSession.create(model, {
    executionProviders: ['cpu'],
    graphOptimizationLevel: 'all',
    intraOpNumThreads: threads,
    interOpNumThreads: 1,
    logSeverityLevel: 3,
  });
  const feeds = { [session.inputNames[0]]: new ort.Tensor('float32', data, [n, c, h, w]) };
  let last = null;
  console.log('ready');
  const lines = readline.createInterface({ input: process.stdin });
  for await (const line of lines) {
    const [cmd, arg] = line.trim().split(/\s+/, 2);
    if (cmd === 'run') {
      const t0 = process.hrtime.bigint();
      const out = await session.run(feeds);
      const ms = Number(process.hrtime.bigint() - t0) / 1e6;
      last = session.outputNames.map((name) => out[name].data);
      console.log(ms.toFixed(4));
    } else if (cmd === 'save' && arg && last) {
      // item by item, the outputs one after the other
      const parts = [];
      for (let i = 0; i < n; ++i)
        for (const o of last) {
          const per = o.length / n;
          parts.push(Buffer.from(o.buffer, o.byteOffset + 4 * i * per, 4 * per));
        }
      const all = Buffer.concat(parts);
      fs.writeFileSync(arg, all);
      console.log(String(all.length / 4));
    } else if (cmd === 'quit') {
      break;
    } else {
      console.log(`error: unknown command ${line.trim()}`);
    }
  }
  process.exit(0);
}

main().catch((e) => {
  console.log(`error: ${e.message}`);
  process.exit(1);
});
