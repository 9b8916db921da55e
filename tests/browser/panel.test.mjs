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
// The cell of a crosspoint in a chassis's grid, in a state if given.
const td = (resource, row, column, state) => `[data-resource="${resource}"] td[data-row="${row}"][data-column="${column}"]` +
  (state ? `[data-state="${state}"]` : "");
const cell = (row, column) => page.locator(td(RK420, row, column));
const showChassis = async (resource, row, column) => {
  await page.click(`.rack-item[data-rack-resource="${resource}"]`);
  await page.waitForSelector(td(resource, row, column));
};
// The error the page shows: its library code.
const shownError = async () => {
  await page.waitForSelector("#error:not([hidden])");
  return page.getAttribute("#error", "data-code");
};

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
  await page.waitForSelector(td(RK420, 1, 1, "closed"));
  assert.ok(relays(RK420).length > 0);
  await cell(1, 1).click();
  await page.waitForSelector(td(RK420, 1, 1, "open"));
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
  assert.equal(await shownError(), "-10030");
  assert.match(await page.textContent("#error"), /Closure Limit/i);
  assert.deepEqual(await closedCells(), cellsBefore);
  assert.deepEqual(relays(RK420), relaysBefore);
});

test("a switch made by another process appears", async () => {
  execFileSync(env.QBVISA_TOOL, ["close", RK420, "7!9"], { env: rackEnv });
  await page.waitForSelector(td(RK420, 7, 9, "closed"), { timeout: 3000 });
});

test("under front-panel control the RK421 refuses switching and the page says why", async () => {
  const RK421 = "USB0::0x1A2B::0x0421::RK421001::INSTR";
  await showChassis(RK421, 1, 1);
  await page.click('button[data-mode="local"]');
  await page.waitForSelector('button[data-mode="local"][aria-pressed="true"]');
  await page.click(td(RK421, 1, 1));
  assert.equal(await shownError(), "-10040");
  assert.equal(await page.getAttribute(td(RK421, 1, 1), "data-state"), "open");
  assert.deepEqual(relays(RK421), []);
  await page.click('button[data-mode="remote"]');
  await page.waitForSelector('button[data-mode="remote"][aria-pressed="true"]');
});

test("the RK422 shows its sub-matrices a page at a time", async () => {
  await showChassis(RK422, 16, 96);
  await page.click(td(RK422, 2, 3));
  await page.waitForSelector(td(RK422, 2, 3, "closed"));
  await page.click('#pager button[data-page="1"]');
  await page.waitForSelector(td(RK422, 1, 97));
  await page.click('#pager button[data-page="0"]');
  await page.waitForSelector(td(RK422, 2, 3, "closed"));
  await page.screenshot({ path: join(artifacts, "panel-rk422.png"), fullPage: true });
});

// Last: after a failed send the library keeps its exchange lock, so the
// package refuses every later switch of the process.
test("a chassis that is gone is reported and nothing changes on the page", async () => {
  const RK423 = "ASRL1::INSTR";
  await showChassis(RK423, 8, 12);
  sim("fault", RK423, "Vanish");
  await page.click(td(RK423, 1, 1));
  assert.equal(await shownError(), "-10004");
  assert.equal(await page.getAttribute(td(RK423, 1, 1), "data-state"), "open");
});
