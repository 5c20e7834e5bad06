#!/usr/bin/env node
// plcsim against a third-party ADS client: the npm package ads-client (v2).
// Usage: node ads_client_test.js PLCSIM_EXE NPM_DIR
// Starts plcsim on 127.0.0.1 port 0, writes and reads raw memory of 0x4020,
// expects ADS errors for an out-of-range read and an unknown index group,
// expects no answer for an unrouted Net ID, and stops plcsim by PID (SIGTERM,
// exit code 0). Everything is bounded by OVERALL_MS.
'use strict';

const { spawn } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');
const assert = require('assert');

const OVERALL_MS = 40000;
const [exe, npmDir] = process.argv.slice(2);
if (!exe || !npmDir) {
  console.error('usage: node ads_client_test.js PLCSIM_EXE NPM_DIR');
  process.exit(2);
}

let Client;
try {
  ({ Client } = require(path.join(npmDir, 'node_modules', 'ads-client')));
} catch (e) {
  console.error(`FAIL: ads-client is not installed in ${npmDir} (${e.message})`);
  process.exit(1);
}

const PLC_NETID = '192.168.1.100.1.1';
const LOCAL_NETID = '127.0.0.1.1.1';
let sim = null;

function stopSim() {
  return new Promise((resolve) => {
    if (!sim || sim.exitCode !== null || sim.signalCode !== null) {
      resolve(sim ? sim.exitCode : null);
      return;
    }
    const timer = setTimeout(() => {
      process.kill(sim.pid, 'SIGKILL');
    }, 5000);
    sim.once('exit', (code, signal) => {
      clearTimeout(timer);
      resolve(signal ? `signal ${signal}` : code);
    });
    process.kill(sim.pid, 'SIGTERM');
  });
}

// Starts plcsim with --port-file in a temporary folder and resolves with the ADS port once
// the file is there (plcsim renames it into place whole); at most 5 s.
function startSim() {
  return new Promise((resolve, reject) => {
    const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'plcsim-'));
    const portFile = path.join(dir, 'ports');
    sim = spawn(exe, ['--listen', '127.0.0.1:0', '--no-program', '--netid', PLC_NETID,
                      '--route', LOCAL_NETID, '--port-file', portFile], { stdio: ['ignore', 'ignore', 'inherit'] });
    const deadline = Date.now() + 5000;
    const done = (f, v) => { clearInterval(timer); fs.rmSync(dir, { recursive: true, force: true }); f(v); };
    const timer = setInterval(() => {
      let text = '';
      try { text = fs.readFileSync(portFile, 'utf8'); } catch (e) { /* not there yet */ }
      const m = /^ads_port=(\d+)$/m.exec(text);
      if (m) {
        done(resolve, Number(m[1]));
      } else if (sim.exitCode !== null || sim.signalCode !== null) {
        done(reject, new Error(`plcsim ended (${sim.exitCode}) before writing ${portFile}`));
      } else if (Date.now() > deadline) {
        done(reject, new Error(`plcsim wrote no port file in 5 s`));
      }
    }, 20);
    sim.on('error', (e) => done(reject, e));
  });
}

function client(port, localAmsNetId, timeoutDelay) {
  return new Client({
    targetAmsNetId: PLC_NETID,
    targetAdsPort: 851,
    routerAddress: '127.0.0.1',
    routerTcpPort: port,
    localAmsNetId,
    localAdsPort: 32750,
    rawClient: true,
    autoReconnect: false,
    timeoutDelay,
  });
}

async function expectAdsError(promise, code, what) {
  try {
    await promise;
  } catch (e) {
    const got = e.adsError ? e.adsError.errorCode : undefined;
    assert.strictEqual(got, code, `${what}: expected ADS error 0x${code.toString(16)}, got ${got} (${e.message})`);
    console.log(`ok - ${what}: ADS error 0x${code.toString(16)}`);
    return;
  }
  throw new Error(`${what}: expected ADS error 0x${code.toString(16)}, but it succeeded`);
}

async function main() {
  const port = await startSim();
  console.log(`plcsim pid ${sim.pid} on port ${port}`);

  const c = client(port, LOCAL_NETID, 2000);
  await c.connect();
  console.log('ok - connected');

  const data = Buffer.from([0x11, 0x22, 0x33, 0x44, 0x55]);
  await c.writeRaw(0x4020, 200, data);
  const back = await c.readRaw(0x4020, 200, 5);
  assert.deepStrictEqual(Buffer.from(back), data, 'read back what was written');
  console.log('ok - writeRaw/readRaw 0x4020:200');

  const rw = await c.readWriteRaw(0x4020, 300, 2, Buffer.from([0xAB, 0xCD]));
  assert.deepStrictEqual(Buffer.from(rw), Buffer.from([0xAB, 0xCD]), 'readWriteRaw');
  console.log('ok - readWriteRaw 0x4020:300');

  await expectAdsError(c.readRaw(0x4020, 0xFFFF, 4), 0x705, 'out-of-range read');
  await expectAdsError(c.readRaw(0x4020, 0x10000, 1), 0x703, 'read past the area');
  await expectAdsError(c.readRaw(0x4021, 0, 1), 0x702, 'unknown index group');

  // Still usable after errors.
  const again = await c.readRaw(0x4020, 200, 2);
  assert.deepStrictEqual(Buffer.from(again), data.subarray(0, 2));
  console.log('ok - still answering after errors');
  await c.disconnect();

  // A Net ID without a route gets no answer at all: the client times out.
  const stranger = client(port, '10.9.8.7.1.1', 700);
  await stranger.connect();
  let timedOut = false;
  try {
    await stranger.readRaw(0x4020, 0, 2);
  } catch (e) {
    console.log(`   (${e.message}; adsError ${JSON.stringify(e.adsError)}; trace ${JSON.stringify(e.trace)})`);
    timedOut = [e.message, ...(e.trace || [])].some((t) => /timeout/i.test(String(t)));
    if (!timedOut) throw new Error(`unrouted read: expected a time-out, got ${e.message}`);
  }
  assert.ok(timedOut, 'unrouted read must not be answered');
  console.log('ok - unrouted Net ID is not answered');
  await stranger.disconnect().catch(() => {});

  const code = await stopSim();
  assert.strictEqual(code, 0, `plcsim exit status after SIGTERM: ${code}`);
  console.log('ok - plcsim stopped by SIGTERM with exit code 0');
}

const overall = setTimeout(async () => {
  console.error(`FAIL: test did not finish in ${OVERALL_MS} ms`);
  await stopSim();
  process.exit(1);
}, OVERALL_MS);

main().then(() => {
  clearTimeout(overall);
  console.log('PASS');
  process.exit(0);
}, async (e) => {
  clearTimeout(overall);
  console.error(`FAIL: ${e && e.stack ? e.stack : e}`);
  await stopSim();
  process.exit(1);
});
