// The front panel in headless chromium, on a shared simulated rack: the panel
// process and the command-line tool switch the same chassis.
//
// Environment (CTest sets it): QBVISA_SIM (qbvisa-sim), QBVISA_TOOL (qbvisa),
// QBVISA_PYTHONPATH (python/), QBVISA_LIBRARY, QBVISA_SIM_VISA, PANEL_ARTIFACTS
// (screenshots), CHROMIUM (default /usr/bin/chromium).
import { test, before, after } from "node:test";
import assert from "node:assert/strict";
import { spawn, execFileSync } from "node:child_process";
import { mkdtempSync, mkdirSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { chromium } from "playwright-core";

const RK420 = "GPIB0::5::INSTR";
const RK422 = "TCPIP0::192.168.1.22::inst0::INSTR";
const env = process.env;
const work = mkdtempSync(join(tmpdir(), "qbvisa-panel-"));
const socket = join(work, "rack.sock");
const artifacts = env.PANEL_ARTIFACTS || join(work, "artifacts");
const rackEnv = { ...env, QBSIM_SERVER: socket };
let panel, url, browser, page;

const sim = (...args) => execFileSync(env.QBVISA_SIM, [...args, "--socket", socket], { env: rackEnv }).toString();
const relays = (resource) => JSON.parse(sim("relays", resource, "--json")).closed;
const cell = (row, column) => page.locator(`[data-resource="${RK420}"] td[data-row="${row}"][data-column="${column}"]`);

async function closedCells() {
  return page.$$eval(`[data-resource="${RK420}"] td[data-state="closed"]`,
    (tds) => tds.map((td) => `${td.dataset.row}!${td.dataset.column}`).sort());
}

async function shiftDrag(from, to) {
  const a = await from.boundingBox(), b = await to.boundingBox();
  await page.keyboard.down("Shift");
  await page.mouse.move(a.x + a.width / 2, a.y + a.height / 2);
  await page.mouse.down();
  await page.mouse.move(b.x + b.width / 2, b.y + b.height / 2, { steps: 6 });
  await page.mouse.up();
  await page.keyboard.up("Shift");
}

async function openAll() {
  await page.click("#open-all");
  await page.waitForFunction(() => !document.querySelector("td[data-state=closed]"));
}

before(async () => {
  mkdirSync(artifacts, { recursive: true });
  // The server outlives this call: it must not hold our output pipe.
  execFileSync(env.QBVISA_SIM, ["serve", "--background", "--socket", socket],
               { env: rackEnv, stdio: ["ignore", "ignore", "inherit"] });
  panel = spawn("/usr/bin/python3", ["-m", "qbvisa.panel", "--port", "0"], {
    env: { ...rackEnv, PYTHONPATH: env.QBVISA_PYTHONPATH, PYTHONDONTWRITEBYTECODE: "1" },
    stdio: ["ignore", "pipe", "inherit"],
  });
  url = await new Promise((resolve, reject) => {
    const lines = createInterface({ input: panel.stdout });
    lines.on("line", (line) => { const m = line.match(/http:\S+/); if (m) resolve(m[0]); });
    panel.on("exit", (code) => reject(new Error(`panel exited with ${code}`)));
  });
  browser = await chromium.launch({ executablePath: env.CHROMIUM || "/usr/bin/chromium",
                                    headless: true, args: ["--no-sandbox", "--disable-dev-shm-usage"] });
  page = await browser.newPage({ viewport: { width: 1440, height: 1000 } });
  await page.goto(url);
  await page.waitForSelector(`[data-resource="${RK420}"] td[data-row]`);
});

after(async () => {
  await browser?.close();
  panel?.kill("SIGTERM");
  try { sim("stop"); } catch { /* already gone */ }
  rmSync(work, { recursive: true, force: true });
});

test("the page lists the rack and shows the RK420's matrix, 1-based", async () => {
  const models = await page.$$eval(".rack-item .model", (items) => items.map((i) => i.textContent));
  assert.deepEqual(models, ["RK420", "RK421", "RK422", "RK423"]);
  assert.match(await page.textContent(".rack-item"), /GPIB0::5::INSTR.*type 1050.*fw 3\.06/s);
  assert.equal(await page.locator(`[data-resource="${RK420}"] td[data-row]`).count(), 12 * 50);
  assert.equal(await cell(12, 50).getAttribute("data-state"), "open");
  assert.equal(await page.locator('td[data-row="0"], td[data-column="51"]').count(), 0);
  assert.match(await page.textContent("#identity"), /20420001/);
});

test("a click closes a crosspoint and the rack server holds its relays", async () => {
  await openAll();
  assert.deepEqual(relays(RK420), []);
  await cell(1, 1).click();
  await page.waitForSelector(`[data-resource="${RK420}"] td[data-row="1"][data-column="1"][data-state="closed"]`);
  assert.ok(relays(RK420).length > 0);
  await cell(1, 1).click();
  await page.waitForSelector(`[data-resource="${RK420}"] td[data-row="1"][data-column="1"][data-state="open"]`);
  assert.deepEqual(relays(RK420), []);
});

test("shift-drag closes a rectangle", async () => {
  await openAll();
  await shiftDrag(cell(2, 2), cell(4, 5));
  await page.waitForFunction(() => document.querySelectorAll("td[data-state=closed]").length === 12);
  const expected = [];
  for (let r = 2; r <= 4; ++r) for (let c = 2; c <= 5; ++c) expected.push(`${r}!${c}`);
  assert.deepEqual(await closedCells(), expected.sort());
  await page.screenshot({ path: join(artifacts, "panel-rk420.png"), fullPage: true });
});

test("a switch past the closure limit shows the library's error and changes nothing", async () => {
  const cellsBefore = await closedCells(), relaysBefore = relays(RK420);
  await shiftDrag(cell(1, 1), cell(12, 40));
  await page.waitForSelector("#error:not([hidden])");
  assert.equal(await page.getAttribute("#error", "data-code"), "-10030");
  assert.match(await page.textContent("#error"), /Closure Limit/i);
  assert.deepEqual(await closedCells(), cellsBefore);
  assert.deepEqual(relays(RK420), relaysBefore);
});

test("a switch made by another process appears", async () => {
  execFileSync(env.QBVISA_TOOL, ["close", RK420, "7!9"], { env: rackEnv });
  await page.waitForSelector(`[data-resource="${RK420}"] td[data-row="7"][data-column="9"][data-state="closed"]`,
                             { timeout: 3000 });
});

test("requests without the token or from another site are refused and change nothing", async () => {
  const before = relays(RK420);
  const statuses = await page.evaluate(async () => {
    const post = (headers) => fetch("/api/switch", { method: "POST", body: '{"chassis":0,"close":"9!9"}',
      headers: { "Content-Type": "application/json", ...headers } }).then((r) => r.status);
    return [await post({}), await post({ "X-Panel-Token": "wrong" })];
  });
  assert.deepEqual(statuses, [403, 403]);
  const token = new URL(url).searchParams.get("token");
  const origin = new URL(url).origin;
  const bad = [
    [{ Origin: "http://evil.example" }, '{"chassis":0,"close":"9!9"}', 403],
    [{ "Sec-Fetch-Site": "cross-site" }, '{"chassis":0,"close":"9!9"}', 403],
    [{}, '{"chassis":0,"close":"9!99"}', 409],
    [{}, '{"chassis":0,"close":"0!1"}', 400],
    [{}, '{"chassis":7,"close":"1!1"}', 404],
    [{}, "not json", 400],
  ];
  for (const [headers, body, status] of bad) {
    const reply = await fetch(`${origin}/api/switch`, { method: "POST", body,
      headers: { "Content-Type": "application/json", "X-Panel-Token": token, ...headers } });
    assert.equal(reply.status, status, `${JSON.stringify(headers)} ${body}`);
  }
  assert.deepEqual(relays(RK420), before);
});

test("under front-panel control the RK421 refuses switching and the page says why", async () => {
  const RK421 = "USB0::0x1A2B::0x0421::RK421001::INSTR";
  const grid = `[data-resource="${RK421}"]`;
  await page.click(`.rack-item[data-rack-resource="${RK421}"]`);
  await page.waitForSelector(`${grid} td[data-row="1"]`);
  await page.click('button[data-mode="local"]');
  await page.waitForSelector('button[data-mode="local"][aria-pressed="true"]');
  await page.click(`${grid} td[data-row="1"][data-column="1"]`);
  await page.waitForSelector("#error:not([hidden])");
  assert.equal(await page.getAttribute("#error", "data-code"), "-10040");
  assert.equal(await page.getAttribute(`${grid} td[data-row="1"][data-column="1"]`, "data-state"), "open");
  assert.deepEqual(relays(RK421), []);
  await page.click('button[data-mode="remote"]');
  await page.waitForSelector('button[data-mode="remote"][aria-pressed="true"]');
});

test("the RK422 shows its sub-matrices a page at a time", async () => {
  await page.click(`.rack-item[data-rack-resource="${RK422}"]`);
  await page.waitForSelector(`[data-resource="${RK422}"] td[data-row="16"][data-column="96"]`);
  const grid = `[data-resource="${RK422}"]`;
  await page.click(`${grid} td[data-row="2"][data-column="3"]`);
  await page.waitForSelector(`${grid} td[data-row="2"][data-column="3"][data-state="closed"]`);
  await page.click('#pager button[data-page="1"]');
  await page.waitForSelector(`${grid} td[data-row="1"][data-column="97"]`);
  await page.click('#pager button[data-page="0"]');
  await page.waitForSelector(`${grid} td[data-row="2"][data-column="3"][data-state="closed"]`);
  await page.screenshot({ path: join(artifacts, "panel-rk422.png"), fullPage: true });
});

// Last: after a failed send the library keeps its exchange lock, so the
// package refuses every later switch of the process.
test("a chassis that is gone is reported and nothing changes on the page", async () => {
  const RK423 = "ASRL1::INSTR";
  const grid = `[data-resource="${RK423}"]`;
  await page.click(`.rack-item[data-rack-resource="${RK423}"]`);
  await page.waitForSelector(`${grid} td[data-row="8"][data-column="12"]`);
  sim("fault", RK423, "Vanish");
  await page.click(`${grid} td[data-row="1"][data-column="1"]`);
  await page.waitForSelector("#error:not([hidden])");
  assert.equal(await page.getAttribute("#error", "data-code"), "-10004");
  assert.equal(await page.getAttribute(`${grid} td[data-row="1"][data-column="1"]`, "data-state"), "open");
});
