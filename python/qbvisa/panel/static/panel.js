// The front panel page: the rack, one chassis' matrix at a time, switching
// through the panel's JSON routes, live state from its event stream.
"use strict";

(function () {
  const MOST_COLUMNS_SHOWN = 100;   // wider matrices are shown a few sub-matrices at a time

  const params = new URLSearchParams(location.search);
  let token = params.get("token");
  if (token) {
    sessionStorage.setItem("qbvisa-panel-token", token);
    history.replaceState(null, "", location.pathname);   // keep it out of the address bar
  } else {
    token = sessionStorage.getItem("qbvisa-panel-token") || "";
  }

  const $ = (id) => document.getElementById(id);
  const el = (tag, attrs, ...children) => {
    const node = document.createElement(tag);
    for (const [key, value] of Object.entries(attrs || {})) {
      if (key === "class") node.className = value;
      else if (key === "text") node.textContent = value;
      else node.setAttribute(key, value);
    }
    for (const child of children) node.append(child);
    return node;
  };

  const state = {
    rack: null,          // /api/rack
    chassis: new Map(),  // index -> snapshot
    selected: null,      // index shown
    page: 0,             // first sub-matrix shown
    cells: new Map(),    // "row,column" -> td of the shown grid
    busy: false,
  };

  // -- talking to the panel -------------------------------------------------
  async function getJson(path) {
    const reply = await fetch(path, { cache: "no-store" });
    if (!reply.ok) throw new Error(`${path}: ${reply.status}`);
    return reply.json();
  }

  async function post(path, body) {
    const reply = await fetch(path, {
      method: "POST",
      headers: { "Content-Type": "application/json", "X-Panel-Token": token },
      body: JSON.stringify(body),
    });
    let data = null;
    try { data = await reply.json(); } catch (e) { data = null; }
    if (!reply.ok) {
      const error = (data && data.error) || { code: null, text: `HTTP ${reply.status}`, detail: "" };
      throw Object.assign(new Error(error.text), { panel: error });
    }
    return data;
  }

  async function act(path, body) {
    if (state.busy) return;
    state.busy = true;
    document.body.classList.add("busy");
    try {
      const snapshot = await post(path, body);
      hideError();
      accept(snapshot);
      if (snapshot.warning) showError(snapshot.warning, "Not held");
    } catch (e) {
      showError(e.panel || { code: null, text: String(e.message || e), detail: "" });
    } finally {
      state.busy = false;
      document.body.classList.remove("busy");
      for (const cell of document.querySelectorAll("td.pending")) cell.classList.remove("pending");
    }
  }

  // -- errors ----------------------------------------------------------------
  function showError(error, title) {
    $("error-title").textContent = title || "Refused";
    $("error-code").textContent = error.code === null || error.code === undefined ? "" : `[${error.code}]`;
    $("error-text").textContent = error.text || "";
    $("error-detail").textContent = error.detail || "";
    const box = $("error");
    box.dataset.code = error.code === null || error.code === undefined ? "" : String(error.code);
    box.classList.toggle("warning", Boolean(title));
    box.hidden = false;
  }
  function hideError() { $("error").hidden = true; }

  // -- the rack --------------------------------------------------------------
  function renderRack() {
    const rack = state.rack;
    const list = $("rack-list");
    list.replaceChildren();
    $("rack-empty").hidden = rack.chassis.length > 0;
    $("library").textContent = rack.library_version ? `libQBVISA ${rack.library_version}` : "";
    $("mode").textContent = rack.read_back
      ? "Relays read back from the chassis: what any program switches shows here."
      : "Showing what this process switched (this VISA cannot read relays back).";
    for (const summary of rack.chassis) {
      const item = el("button", { class: "rack-item", type: "button", "data-index": String(summary.index),
                                  "data-rack-resource": summary.resource });
      item.append(
        el("div", { class: "model", text: summary.model }),
        el("div", { class: "res mono", text: summary.resource }),
        el("div", { class: "facts" },
          el("span", { text: `type ${summary.type_code}` }),
          el("span", { text: summary.firmware ? `fw ${summary.firmware}` : "fw —" }),
          el("span", { class: "count" })));
      if (summary.problem) item.append(el("div", { class: "problem", text: summary.problem.text }));
      item.addEventListener("click", () => select(summary.index));
      list.append(el("li", {}, item));
      updateRackItem(summary.index);
    }
  }

  function updateRackItem(index) {
    const item = document.querySelector(`.rack-item[data-index="${index}"]`);
    if (!item) return;
    item.setAttribute("aria-current", String(index === state.selected));
    const snapshot = state.chassis.get(index);
    const count = item.querySelector(".count");
    const closed = snapshot ? snapshot.closed.length : 0;
    count.textContent = closed ? `${closed} closed` : "all open";
    count.classList.toggle("none", closed === 0);
  }

  function select(index) {
    if (state.selected !== index) state.page = 0;
    state.selected = index;
    hideError();
    for (const summary of state.rack.chassis) updateRackItem(summary.index);
    const snapshot = state.chassis.get(index);
    if (snapshot) renderChassis(snapshot);
    else getJson(`/api/chassis/${index}`).then(accept).catch(() => {});
  }

  // -- one chassis -------------------------------------------------------------
  function accept(snapshot) {
    const before = state.chassis.get(snapshot.index);
    if (before && before.version > snapshot.version) return;   // an older answer
    state.chassis.set(snapshot.index, snapshot);
    updateRackItem(snapshot.index);
    if (snapshot.index !== state.selected) return;
    const sameShape = before && JSON.stringify(before.geometry) === JSON.stringify(snapshot.geometry);
    if (sameShape && state.cells.size) {
      updateCells(snapshot);
      renderGauge(snapshot);
      renderPager(snapshot);
      renderDetails(snapshot);
    } else {
      renderChassis(snapshot);
    }
  }

  function pages(geometry) {
    const per = Math.max(1, Math.floor(MOST_COLUMNS_SHOWN / geometry.columns_per_sub_matrix));
    return geometry.sub_matrices <= per ? 1 : Math.ceil(geometry.sub_matrices / per);
  }

  function shownSubs(geometry) {
    const per = Math.max(1, Math.floor(MOST_COLUMNS_SHOWN / geometry.columns_per_sub_matrix));
    if (geometry.sub_matrices <= per) return [0, geometry.sub_matrices];
    const first = Math.min(state.page, geometry.sub_matrices - 1);
    return [first, Math.min(first + per, geometry.sub_matrices)];
  }

  function renderChassis(snapshot) {
    $("chassis").hidden = false;
    $("details").hidden = false;
    $("title").textContent = `${snapshot.model}`;
    $("subtitle").textContent = `${snapshot.resource} · type ${snapshot.type_code}`;
    const matrix = $("matrix");
    matrix.dataset.resource = snapshot.resource;
    matrix.replaceChildren();
    state.cells.clear();
    const geometry = snapshot.geometry;
    if (!geometry) {
      matrix.append(el("p", { class: "muted", text: snapshot.problem ? snapshot.problem.text : "No matrix." }));
    } else {
      matrix.append(buildGrid(geometry));
      updateCells(snapshot);
    }
    renderGauge(snapshot);
    renderPager(snapshot);
    renderDetails(snapshot);
  }

  function buildGrid(g) {
    const [firstSub, endSub] = shownSubs(g);
    const C = g.columns_per_sub_matrix;
    const table = el("table", { class: "matrix" });
    const subs = el("tr", { class: "subs" }, el("th", { class: "corner" }));
    const cols = el("tr", { class: "cols" }, el("th", { class: "corner", text: "row" }));
    for (let s = firstSub; s < endSub; ++s) {
      const fitted = g.fitted[s];
      subs.append(el("th", { colspan: String(C), class: fitted ? "" : "unfitted",
        text: `Sub-matrix ${s + 1} · columns ${s * C + 1}–${(s + 1) * C}${fitted ? "" : " · not fitted"}` }));
      for (let c = 0; c < C; ++c)
        cols.append(el("th", { class: c === 0 ? "sub-start" : "", text: String(s * C + c + 1) }));
    }
    const body = el("tbody");
    for (let r = 1; r <= g.rows; ++r) {
      const tr = el("tr", {}, el("th", { text: String(r) }));
      for (let s = firstSub; s < endSub; ++s) {
        for (let c = 0; c < C; ++c) {
          const column = s * C + c + 1;
          const td = el("td", { "data-row": String(r), "data-column": String(column),
                                "data-state": g.fitted[s] ? "open" : "unfitted",
                                title: `${r}!${column}` });
          if (c === 0) td.classList.add("sub-start");
          state.cells.set(`${r},${column}`, td);
          tr.append(td);
        }
      }
      body.append(tr);
    }
    table.append(el("thead", {}, subs, cols), body);
    return table;
  }

  function updateCells(snapshot) {
    const closed = new Set(snapshot.closed.map(([r, c]) => `${r},${c}`));
    for (const [key, td] of state.cells) {
      if (td.dataset.state === "unfitted") continue;
      const wanted = closed.has(key) ? "closed" : "open";
      if (td.dataset.state !== wanted) td.dataset.state = wanted;
    }
  }

  function renderGauge(snapshot) {
    const limit = snapshot.closure_limit;
    const relays = snapshot.relays;
    const gauge = $("gauge");
    let text, fraction, note;
    if (relays === null || relays === undefined) {
      text = `${snapshot.closed.length} crosspoint${snapshot.closed.length === 1 ? "" : "s"} closed`;
      fraction = 0;
      note = "Relays cannot be counted here.";
    } else {
      text = limit ? `${relays} / ${limit} relays closed` : `${relays} relays closed`;
      fraction = limit ? Math.min(1, relays / limit) : 0;
      note = limit ? "The model's closure limit; isolation relays count" : "No closure limit on this model";
      if (!snapshot.read_back) note = `Counted from what this process switched. ${note}`;
    }
    const n = snapshot.closed.length;
    $("gauge-text").textContent = relays === null || relays === undefined
      ? text : `${text} · ${n} crosspoint${n === 1 ? "" : "s"}`;
    $("gauge-fill").style.width = `${(fraction * 100).toFixed(1)}%`;
    gauge.dataset.level = fraction >= 1 ? "full" : fraction >= 0.8 ? "high" : "ok";
    gauge.setAttribute("aria-valuenow", String(relays ?? snapshot.closed.length));
    if (limit) gauge.setAttribute("aria-valuemax", String(limit));
    $("gauge-note").textContent = note;
    $("open-all").disabled = !snapshot.geometry;
  }

  function renderPager(snapshot) {
    const g = snapshot.geometry;
    const pager = $("pager");
    if (!g || pages(g) === 1) { pager.hidden = true; pager.replaceChildren(); return; }
    const per = Math.max(1, Math.floor(MOST_COLUMNS_SHOWN / g.columns_per_sub_matrix));
    const closedSubs = new Set(snapshot.closed.map(([, c]) => Math.floor((c - 1) / g.columns_per_sub_matrix)));
    pager.hidden = false;
    pager.replaceChildren(el("span", { class: "label", text: "Sub-matrix" }));
    for (let s = 0; s < g.sub_matrices; s += per) {
      const button = el("button", { type: "button", "data-page": String(s), text: String(s + 1),
        title: `Columns ${s * g.columns_per_sub_matrix + 1}–${Math.min(s + per, g.sub_matrices) * g.columns_per_sub_matrix}` });
      button.setAttribute("aria-pressed", String(s === state.page));
      if ([...Array(per).keys()].some((k) => closedSubs.has(s + k))) button.classList.add("has-closed");
      if (!g.fitted[s]) button.classList.add("unfitted");
      button.addEventListener("click", () => { state.page = s; renderChassis(state.chassis.get(state.selected)); });
      pager.append(button);
    }
  }

  function row(list, name, value) {
    list.append(el("dt", { text: name }), el("dd", { text: value === null || value === undefined || value === "" ? "—" : String(value) }));
  }

  function renderDetails(snapshot) {
    const id = snapshot.identity || {};
    const identity = $("identity");
    identity.replaceChildren();
    row(identity, "Model", `${snapshot.model} (type ${snapshot.type_code})`);
    row(identity, "Resource", snapshot.resource);
    row(identity, "Serial number", id.serial_number);
    row(identity, "ID", id.id_chars);
    row(identity, "Firmware", (id.firmware_versions || []).join(", ") || id.firmware);
    row(identity, "Hardware versions", (id.hardware_versions || []).join(", "));
    row(identity, "Card serial numbers", (id.card_serial_numbers || []).filter((n) => n).join(", "));
    if (snapshot.geometry) {
      const g = snapshot.geometry;
      const fitted = g.fitted.filter(Boolean).length;
      row(identity, "Matrix", `${g.rows} rows × ${g.columns} columns (${g.sub_matrices} sub-matrices of ${g.columns_per_sub_matrix}, ${fitted} fitted)`);
    }
    row(identity, "Closure limit", snapshot.closure_limit ? `${snapshot.closure_limit} relays` : "none");
    row(identity, "State shown", snapshot.read_back ? "read back from the chassis" : "what this process switched");

    const s = snapshot.settings || {};
    const settings = $("settings");
    settings.replaceChildren();
    const mode = el("dd", { class: s.control_mode ? "" : "na", text: s.control_mode || "not on this model" });
    if (s.control_mode) {
      const seg = el("span", { class: "seg", role: "group", "aria-label": "control mode" });
      for (const value of ["local", "remote"]) {
        const button = el("button", { type: "button", "data-mode": value, text: value === "local" ? "Local" : "Remote" });
        button.setAttribute("aria-pressed", String(s.control_mode === value));
        button.addEventListener("click", () => {
          if (s.control_mode !== value) act("/api/settings", { chassis: snapshot.index, control_mode: value });
        });
        seg.append(button);
      }
      mode.textContent = s.control_mode === "local" ? "local (front panel)" : "remote";
      mode.append(seg);
    }
    settings.append(el("dt", { text: "Control mode" }), mode);
    for (const [name, value] of [["GPIB address", s.gpib_address], ["IP address", s.ip_address],
                                 ["Baud rate", s.baud_rate], ["LAN mode", s.lan_mode]]) {
      const known = value !== null && value !== undefined;
      settings.append(el("dt", { text: name }),
                      el("dd", { class: known ? "" : "na", text: known ? String(value) : "not on this model" }));
    }
    if (snapshot.problem) row(settings, "Problem", `[${snapshot.problem.code}] ${snapshot.problem.text}`);
  }

  // -- clicking and dragging -------------------------------------------------------
  let drag = null;   // {anchor: td, close: bool, last: td}

  function cellOf(target) {
    const td = target && target.closest ? target.closest("td[data-row]") : null;
    return td && $("matrix").contains(td) ? td : null;
  }

  function rectangle(a, b) {
    const r1 = Math.min(+a.dataset.row, +b.dataset.row), r2 = Math.max(+a.dataset.row, +b.dataset.row);
    const c1 = Math.min(+a.dataset.column, +b.dataset.column), c2 = Math.max(+a.dataset.column, +b.dataset.column);
    const cells = [];
    for (let r = r1; r <= r2; ++r)
      for (let c = c1; c <= c2; ++c) {
        const td = state.cells.get(`${r},${c}`);
        if (td && td.dataset.state !== "unfitted") cells.push(td);
      }
    return cells;
  }

  function markSelection(cells) {
    for (const td of document.querySelectorAll("td.sel")) td.classList.remove("sel");
    for (const td of cells) td.classList.add("sel");
  }

  function send(cells, close) {
    if (!cells.length || state.selected === null) return;
    const points = cells.map((td) => [+td.dataset.row, +td.dataset.column]);
    for (const td of cells) td.classList.add("pending");
    act("/api/switch", close ? { chassis: state.selected, close: points } : { chassis: state.selected, open: points });
  }

  function wireMatrix() {
    const matrix = $("matrix");
    matrix.addEventListener("mousedown", (event) => {
      const td = cellOf(event.target);
      if (!td || !event.shiftKey || event.button !== 0 || td.dataset.state === "unfitted") return;
      event.preventDefault();
      drag = { anchor: td, last: td, close: td.dataset.state !== "closed" };
      markSelection([td]);
    });
    matrix.addEventListener("mouseover", (event) => {
      if (!drag) return;
      const td = cellOf(event.target);
      if (td && td !== drag.last) { drag.last = td; markSelection(rectangle(drag.anchor, td)); }
    });
    document.addEventListener("mouseup", (event) => {
      if (!drag) return;
      const td = cellOf(event.target) || drag.last;
      const cells = rectangle(drag.anchor, td);
      const close = drag.close;
      drag = { done: true };
      markSelection([]);
      send(cells, close);
    });
    matrix.addEventListener("click", (event) => {
      if (drag && drag.done) { drag = null; return; }   // the end of a shift-drag
      const td = cellOf(event.target);
      if (!td || event.shiftKey || td.dataset.state === "unfitted") return;
      send([td], td.dataset.state !== "closed");
    });
    $("open-all").addEventListener("click", () => {
      if (state.selected !== null) act("/api/open-all", { chassis: state.selected });
    });
    $("error-close").addEventListener("click", hideError);
  }

  // -- live state ------------------------------------------------------------------
  function setLink(kind, text) {
    $("link").dataset.link = kind;
    $("link-text").textContent = text;
  }

  function onRack(rack) {
    const first = state.rack === null;
    state.rack = rack;
    renderRack();
    if (first && rack.chassis.length) select(rack.chassis[0].index);
  }

  let pollTimer = null;
  function poll() {
    // Fallback when the event stream is not available: ask every second.
    if (pollTimer) return;
    const tick = async () => {
      try {
        const rack = await getJson("/api/rack");
        if (state.rack === null) onRack(rack);
        if (state.selected !== null) accept(await getJson(`/api/chassis/${state.selected}`));
        setLink("polling", "polling");
      } catch (e) {
        setLink("offline", "panel not reachable");
      }
    };
    tick();
    pollTimer = setInterval(tick, 1000);
  }

  function listen() {
    if (!window.EventSource) { poll(); return; }
    const source = new EventSource("/api/events");
    let failures = 0;
    source.addEventListener("open", () => {
      failures = 0;
      setLink("live", "live");
      if (pollTimer) { clearInterval(pollTimer); pollTimer = null; }
    });
    source.addEventListener("rack", (event) => onRack(JSON.parse(event.data)));
    source.addEventListener("chassis", (event) => accept(JSON.parse(event.data)));
    source.addEventListener("error", () => {
      failures += 1;
      setLink("offline", "reconnecting");
      if (failures >= 3) poll();
    });
  }

  document.addEventListener("DOMContentLoaded", () => {
    wireMatrix();
    if (!token) showError({ code: null, text: "No token: open the address the panel printed at start to switch.", detail: "" });
    listen();
  });
})();
