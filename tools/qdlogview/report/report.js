// SPDX-License-Identifier: Apache-2.0
// The page that "qdlogview -o html" writes. The records stand in it as JSON, in chunks of
// columns: numbers, or places in the lists of names that the last chunk has. Whatever they
// hold becomes text of the page (textContent), never markup.
//
// Sections: the records, names and times, filters, the histogram, the table, one record,
// printing, start.
"use strict";
(() => {
const byId = (id) => document.getElementById(id);
const make = (name, text, className) => {
    const element = document.createElement(name);
    if (text !== undefined) element.textContent = text;
    if (className) element.className = className;
    return element;
};

// ---- the records ---------------------------------------------------------------------

const chunks = [];
for (const element of document.querySelectorAll("script.chunk")) {
    chunks.push(JSON.parse(element.textContent));
    element.remove();
}
const names = chunks.pop();
const total = chunks.reduce((sum, chunk) => sum + chunk.t.length, 0);
const time = new Float64Array(total);
const column = {};
for (const key of "skpowch") column[key] = new Uint32Array(total);
const text = new Array(total);
{
    let at = 0;
    for (const chunk of chunks) {
        let now = 0;
        for (let i = 0; i < chunk.t.length; ++i) {
            now += chunk.t[i];
            time[at + i] = now;
            text[at + i] = chunk.x[i];
        }
        for (const key in column) column[key].set(chunk[key], at);
        at += chunk.t.length;
    }
}
// What is asked of one record at a time is read then: a chunk of it follows each of the others.
const rares = [...document.querySelectorAll("script.rare")];
const sizes = chunks.map((chunk) => chunk.t.length);
chunks.length = 0;
const rare = (record, key) => {
    let chunk = 0;
    while (record >= sizes[chunk]) record -= sizes[chunk++];
    if (rares[chunk] instanceof Element) rares[chunk] = JSON.parse(rares[chunk].textContent);
    return rares[chunk][key][record];
};
const isTimed = (record) => names.kinds[column.k[record]] !== "unknown";

// ---- names and times -----------------------------------------------------------------

const SEVERITIES = names.severities; // from the least to the worst (info and context are alike); the last: none
const colorOf = (severity) => `var(--s${severity})`;
const SECOND = 1000, MINUTE = 60000, HOUR = 3600000, DAY = 86400000;
let isLocal = false;

// Milliseconds that the clock of the chosen zone is ahead of UTC.
const ahead = (when) => (isLocal ? -new Date(when).getTimezoneOffset() * MINUTE : 0);
const shown = (when) => {
    const shifted = new Date(when + ahead(when));
    return isNaN(shifted) ? String(when) : shifted.toISOString().replace("T", " ").slice(0, -1);
};
const beginOf = (when, unit) => {
    const shift = ahead(when);
    return Math.floor((when + shift) / unit) * unit - shift;
};
// What could steer how text is shown is spelled out.
const visible = (value) => value.replace(
    /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069]/g,
    (c) => "\\u{" + c.codePointAt(0).toString(16) + "}");
const oneLine = (value) => visible(value.replace(/[\r\n]+/g, " \u23ce ").replace(/\t/g, " "));
const manyLines = (value) => visible(value.replace(/\r\n?/g, "\n"));

// ---- filters -------------------------------------------------------------------------

const pattern = (value) => new RegExp("^" + value.replace(/[.+^${}()|[\]\\]/g, "\\$&").replace(/\*/g, "[^]*").replace(/\?/g, "[^]") + "$", "u");
let from = -Infinity, until = Infinity; // the part of time that is zoomed to
let lowered = null; // the texts in lower case, made when they are first needed
let chosen = new Uint32Array(0); // the records that the filters leave
let beforeZoom = new Uint32Array(0);

const lower = () => { if (lowered === null) lowered = text.map((value) => value.toLowerCase()); };
const textTest = () => {
    const wanted = byId("text").value;
    const isCase = byId("case").checked;
    byId("wrong").textContent = "";
    if (wanted === "") return null;
    if (byId("regex").checked) {
        try {
            const regex = new RegExp(wanted, isCase ? "u" : "iu");
            return (record) => regex.test(text[record]);
        } catch (problem) {
            byId("wrong").textContent = problem.message;
            return () => false;
        }
    }
    if (isCase) return (record) => text[record].includes(wanted);
    lower();
    const low = wanted.toLowerCase();
    return (record) => lowered[record].includes(low);
};

// Which of a list of names pass: a byte for each.
const passing = (list, test) => Uint8Array.from(list, (name, i) => (test(name, i) ? 1 : 0));

const filter = () => {
    const tests = [];
    const severity = Number(byId("severity").value);
    if (severity > 0) tests.push((record) => column.s[record] >= severity && column.s[record] < SEVERITIES.length - 1);
    const product = byId("product").value;
    if (product !== "") tests.push((record) => column.p[record] === Number(product));
    const originator = byId("originator").value;
    if (originator !== "") tests.push((record) => column.o[record] === Number(originator));
    const component = byId("component").value;
    if (component !== "") {
        const regex = pattern(component);
        const pass = passing(names.who, (name) => regex.test(name));
        const kinds = passing(names.kinds, (name) => ["debug", "diagnostic", "application"].includes(name));
        tests.push((record) => pass[column.w[record]] && kinds[column.k[record]]);
    }
    const context = byId("context").value;
    if (context !== "") {
        const regex = pattern(context);
        const token = passing(names.contexts, (name) => regex.test(name));
        const title = passing(names.who, (name) => regex.test(name));
        const kind = names.kinds.indexOf("context"); // the record of the context itself has it as its title
        tests.push((record) => token[column.c[record]] || (column.k[record] === kind && title[column.w[record]]));
    }
    const byText = textTest();
    if (byText) tests.push(byText);
    const found = new Uint32Array(total);
    let count = 0;
    next: for (let record = 0; record < total; ++record) {
        for (let i = 0; i < tests.length; ++i) if (!tests[i](record)) continue next;
        found[count++] = record;
    }
    beforeZoom = found.slice(0, count);
    zoom(from, until);
};

const zoom = (begin, end) => {
    from = begin;
    until = end;
    const isAll = from === -Infinity && until === Infinity;
    chosen = isAll ? beforeZoom : beforeZoom.filter((record) => isTimed(record) && time[record] >= from && time[record] < until);
    byId("out").disabled = isAll;
    tell();
    draw();
    fillRows(true);
};

const tell = () => {
    const parts = [`${chosen.length} of ${total} records`];
    if (from !== -Infinity) parts.push(`${shown(from)} to ${shown(until)}`);
    byId("status").textContent = parts.join(", ");
};

// ---- the histogram -------------------------------------------------------------------

const UNITS = [1, 10, 100, SECOND, 10 * SECOND, MINUTE, 10 * MINUTE, HOUR, 6 * HOUR, DAY, 7 * DAY, 30 * DAY, 365 * DAY];
const MOST_BARS = 240;
const canvas = byId("histogram");
let bars = []; // {begin, end, counts}
let marked = -1, anchor = -1; // bars: where the keyboard is, where the selection began

const chooseUnit = (first, last) => {
    const asked = Number(byId("unit").value);
    if (asked !== 0) return asked;
    return UNITS.find((unit) => (last - first) / unit < MOST_BARS) || (last - first) / MOST_BARS;
};

// Bars of the records that are left, also those without any between.
const count = () => {
    let first = Infinity, last = -Infinity;
    for (const record of chosen) {
        if (!isTimed(record)) continue;
        first = Math.min(first, time[record]);
        last = Math.max(last, time[record]);
    }
    bars = [];
    if (first > last) return;
    const unit = chooseUnit(first, last);
    const found = new Map();
    let begin = NaN, counts = null; // of the record in front: mostly the same bar
    for (const record of chosen) {
        if (!isTimed(record)) continue;
        const when = time[record];
        if (!(when >= begin && when < begin + unit) || isLocal) {
            begin = beginOf(when, unit);
            counts = found.get(begin);
            if (counts === undefined) found.set(begin, counts = new Uint32Array(SEVERITIES.length));
        }
        ++counts[column.s[record]];
    }
    bars = [...found].sort((a, b) => a[0] - b[0]).map(([at, each]) => ({ begin: at, end: at + unit, counts: each }));
};

const sum = (counts) => counts.reduce((a, b) => a + b, 0);
const mostOf = () => bars.reduce((most, bar) => Math.max(most, sum(bar.counts)), 0);
const span = () => [bars[0].begin, bars[bars.length - 1].end];
const placeOf = (when) => { const [first, last] = span(); return (when - first) / (last - first) * canvas.clientWidth; };
const timeAt = (x) => { const [first, last] = span(); return first + x / canvas.clientWidth * (last - first); };
const AXIS = 18; // pixels for the times below

const paint = (selection) => {
    const scale = window.devicePixelRatio || 1;
    const width = canvas.clientWidth, height = canvas.clientHeight;
    canvas.width = width * scale;
    canvas.height = height * scale;
    const to = canvas.getContext("2d");
    to.scale(scale, scale);
    const style = getComputedStyle(document.documentElement);
    const color = (name) => style.getPropertyValue(name);
    const most = Math.max(1, mostOf());
    const room = height - AXIS - 14;
    bars.forEach((bar, i) => {
        const x = placeOf(bar.begin);
        const wide = Math.max(1, placeOf(bar.end) - x - (bars.length < width / 4 ? 1 : 0));
        let bottom = height - AXIS;
        for (let severity = SEVERITIES.length - 1; severity >= 0; --severity) { // the worst at the bottom, where bars begin alike
            if (bar.counts[severity] === 0) continue;
            const tall = Math.max(1, bar.counts[severity] / most * room);
            to.fillStyle = color(`--s${severity}`);
            to.fillRect(x, bottom - tall, wide, tall);
            bottom -= tall;
        }
        if (i === marked && document.activeElement === canvas) {
            to.strokeStyle = color("--mark");
            to.lineWidth = 2;
            to.strokeRect(x - 1, 1, wide + 2, height - AXIS - 1);
        }
    });
    to.fillStyle = color("--dim");
    to.font = "11px system-ui, sans-serif";
    if (bars.length > 0) {
        const [first, last] = span();
        to.fillText(shown(first), 4, height - 5);
        const end = shown(last);
        to.fillText(end, width - to.measureText(end).width - 4, height - 5);
        to.fillText(String(most), 4, 12);
    } else {
        to.fillText("no records", 4, 12);
    }
    if (selection) {
        to.fillStyle = color("--mark");
        to.globalAlpha = 0.25;
        to.fillRect(Math.min(...selection), 0, Math.abs(selection[1] - selection[0]), height - AXIS);
        to.globalAlpha = 1;
    }
};

const labelOf = (bar) => `${shown(bar.begin)}: ${sum(bar.counts)} records` +
    SEVERITIES.map((name, i) => (bar.counts[i] ? `, ${bar.counts[i]} ${name || "without severity"}` : "")).reverse().join("");

const draw = () => {
    count();
    marked = anchor = -1;
    canvas.setAttribute("aria-label", bars.length === 0 ? "No records over time" :
        `${chosen.length} records in ${bars.length} bars from ${shown(bars[0].begin)} to ${shown(bars[bars.length - 1].end)}; most in one: ${mostOf()}`);
    paint();
    if (byId("counts").open) tabulate();
};

const tabulate = () => {
    const table = make("table");
    const used = SEVERITIES.map((_, i) => i).filter((i) => bars.some((bar) => bar.counts[i] > 0));
    const head = make("tr");
    for (const title of ["From", "Records", ...used.map((i) => SEVERITIES[i] || "none")]) head.append(make("th", title));
    table.append(make("thead"));
    table.tHead.append(head);
    const body = make("tbody");
    for (const bar of bars) {
        const row = make("tr");
        row.append(make("th", shown(bar.begin)), make("td", sum(bar.counts)), ...used.map((i) => make("td", bar.counts[i])));
        body.append(row);
    }
    table.append(body);
    byId("table").replaceChildren(table);
};

let dragged = null;
canvas.addEventListener("pointerdown", (event) => {
    if (bars.length === 0 || event.button !== 0) return;
    dragged = event.offsetX;
    canvas.setPointerCapture(event.pointerId);
});
canvas.addEventListener("pointermove", (event) => {
    if (bars.length === 0) return;
    if (dragged !== null) {
        paint([dragged, event.offsetX]);
        return;
    }
    const when = timeAt(event.offsetX);
    const bar = bars.find((each) => when >= each.begin && when < each.end);
    canvas.title = bar ? labelOf(bar) : "";
});
canvas.addEventListener("pointerup", (event) => {
    if (dragged === null) return;
    const ends = [timeAt(dragged), timeAt(event.offsetX)].sort((a, b) => a - b);
    const wide = Math.abs(event.offsetX - dragged);
    dragged = null;
    if (wide < 4) { paint(); return; }
    const first = bars.find((bar) => bar.end > ends[0]);
    const last = bars.filter((bar) => bar.begin < ends[1]).pop();
    if (first && last && first.begin < last.end) zoom(first.begin, last.end); // whole bars
    else paint();
});
canvas.addEventListener("pointercancel", () => { dragged = null; paint(); });
canvas.addEventListener("keydown", (event) => {
    const step = { ArrowLeft: -1, ArrowRight: 1 }[event.key];
    if (step && bars.length > 0) {
        marked = Math.min(bars.length - 1, Math.max(0, marked + step));
        anchor = event.shiftKey ? (anchor < 0 ? marked : anchor) : marked;
        paint(anchor === marked ? undefined : [placeOf(bars[Math.min(anchor, marked)].begin), placeOf(bars[Math.max(anchor, marked)].end)]);
        byId("status").textContent = labelOf(bars[marked]);
    } else if (event.key === "Enter" && marked >= 0) {
        zoom(bars[Math.min(anchor, marked)].begin, bars[Math.max(anchor, marked)].end);
    } else if (event.key === "Escape") {
        zoom(-Infinity, Infinity);
    } else {
        return;
    }
    event.preventDefault();
});

// ---- the table -----------------------------------------------------------------------

const HEIGHT = 24; // of a row, as in the style
const TALLEST = 8e6; // pixels: browsers bound what scrolls; beyond it a pixel stands for several rows
const BEYOND = 10; // rows above and below what is seen
const view = byId("records"), space = byId("space"), rows = byId("rows");
const pool = []; // rows that are used again and again
let current = -1; // the selected one: place in `chosen`

const seenRows = () => Math.max(1, Math.floor((view.clientHeight - HEIGHT) / HEIGHT));
const tall = () => Math.min(TALLEST, chosen.length * HEIGHT);
const topRow = () => {
    const scrollable = Math.max(1, tall() - seenRows() * HEIGHT);
    if (chosen.length * HEIGHT <= TALLEST) return Math.floor(view.scrollTop / HEIGHT);
    return Math.round(Math.min(1, view.scrollTop / scrollable) * (chosen.length - seenRows()));
};

const newRow = () => {
    const row = make("div", undefined, "row");
    row.setAttribute("role", "row");
    for (let i = 0; i < 7; ++i) {
        const cell = make("span");
        cell.setAttribute("role", "cell");
        row.append(cell);
    }
    row.children[1].append(make("b"));
    pool.push(row);
    rows.append(row);
    return row;
};

const fillRows = (isNew) => {
    if (isNew) {
        current = -1;
        hideDetail();
        view.scrollTop = 0;
        space.style.height = tall() + "px";
        view.setAttribute("aria-rowcount", chosen.length + 1);
    }
    const first = Math.max(0, topRow() - BEYOND);
    const last = Math.min(chosen.length, topRow() + seenRows() + BEYOND);
    rows.style.top = (chosen.length * HEIGHT <= TALLEST ? first * HEIGHT : Math.max(0, view.scrollTop - (topRow() - first) * HEIGHT)) + "px";
    for (let i = 0; i < Math.max(pool.length, last - first); ++i) {
        const row = pool[i] || newRow();
        const at = first + i;
        row.hidden = at >= last;
        row.style.display = at >= last ? "none" : "";
        if (at >= last) continue;
        const record = chosen[at];
        row.id = "row" + at;
        row.setAttribute("aria-rowindex", at + 2);
        row.classList.toggle("chosen", at === current);
        const [when, severity, product, originator, who, context, words] = row.children;
        when.textContent = isTimed(record) ? shown(time[record]) : "-";
        severity.firstChild.textContent = SEVERITIES[column.s[record]] || "-";
        severity.firstChild.style.borderColor = colorOf(column.s[record]);
        product.textContent = oneLine(names.products[column.p[record]]);
        originator.textContent = oneLine(names.originators[column.o[record]]);
        who.textContent = oneLine(names.who[column.w[record]]);
        context.textContent = oneLine(names.contexts[column.c[record]]);
        words.textContent = oneLine(text[record].length > 1000 ? text[record].slice(0, 1000) + "\u2026" : text[record]);
    }
};

let isWaiting = false;
view.addEventListener("scroll", () => {
    if (isWaiting) return;
    isWaiting = true;
    requestAnimationFrame(() => { isWaiting = false; fillRows(false); });
}, { passive: true });

const select = (at) => {
    current = Math.min(chosen.length - 1, Math.max(0, at));
    const top = topRow();
    if (current < top || current >= top + seenRows()) {
        const row = current < top ? current : current - seenRows() + 1;
        view.scrollTop = chosen.length * HEIGHT <= TALLEST ? row * HEIGHT : row / (chosen.length - seenRows()) * (tall() - seenRows() * HEIGHT);
    }
    fillRows(false);
    view.setAttribute("aria-activedescendant", "row" + current);
};

view.addEventListener("keydown", (event) => {
    const page = seenRows();
    const to = { ArrowDown: current + 1, ArrowUp: current - 1, PageDown: current + page, PageUp: current - page, Home: 0, End: chosen.length - 1 }[event.key];
    if (to !== undefined && chosen.length > 0) select(to);
    else if ((event.key === "Enter" || event.key === " ") && current >= 0) showDetail(chosen[current]);
    else if (event.key === "Escape") hideDetail();
    else return;
    event.preventDefault();
});
rows.addEventListener("click", (event) => {
    const row = event.target.closest(".row");
    if (!row) return;
    select(Number(row.id.slice(3)));
    showDetail(chosen[current]);
});

// ---- one record ----------------------------------------------------------------------

const showDetail = (record) => {
    const list = make("dl");
    const kind = names.kinds[column.k[record]];
    const number = rare(record, "n");
    const rowsOf = [
        ["time", isTimed(record) ? shown(time[record]) : ""], ["severity", SEVERITIES[column.s[record]]], ["kind", kind],
        [kind === "audit" ? "outcome" : "level", kind === "audit" || kind === "debug" || kind === "diagnostic" ? number : ""],
        ["product", names.products[column.p[record]]], ["originator", names.originators[column.o[record]]],
        [kind === "audit" ? "subject" : kind === "context" ? "title" : "component", names.who[column.w[record]]],
        ["context", names.contexts[column.c[record]]], ["host", names.hosts[column.h[record]]], ["process", rare(record, "i")],
        ["thread", rare(record, "d")], ["message id", rare(record, "m")],
        ["place", names.files[rare(record, "f")] + "@" + rare(record, "b")], ["text", text[record]],
    ];
    for (const [name, value] of rowsOf)
        if (value !== "" && value !== undefined && value !== null) list.append(make("dt", name), make("dd", manyLines(String(value))));
    byId("detail").replaceChildren(list);
    byId("detail").hidden = false;
    byId("detail").scrollIntoView({ block: "nearest" });
};
const hideDetail = () => { byId("detail").hidden = true; };

// ---- printing ------------------------------------------------------------------------

const PRINTED = 2000; // records
window.addEventListener("beforeprint", () => {
    const table = make("table");
    table.append(make("thead"), make("tbody"));
    const head = make("tr");
    for (const title of ["Time", "Severity", "Product", "Originator", "Component", "Context", "Text"]) head.append(make("th", title));
    table.tHead.append(head);
    for (const record of chosen.subarray(0, PRINTED)) {
        const row = make("tr");
        for (const value of [isTimed(record) ? shown(time[record]) : "-", SEVERITIES[column.s[record]], names.products[column.p[record]],
            names.originators[column.o[record]], names.who[column.w[record]], names.contexts[column.c[record]], text[record]])
            row.append(make("td", oneLine(value)));
        table.tBodies[0].append(row);
    }
    const note = chosen.length > PRINTED ? `The first ${PRINTED} of ${chosen.length} records; filters and zooming choose others.` : "";
    byId("print").replaceChildren(make("p", note), table);
});
window.addEventListener("afterprint", () => byId("print").replaceChildren());

// ---- start ---------------------------------------------------------------------------

const addOption = (list, value, label) => { const option = make("option", visible(label)); option.value = value; list.append(option); };
const fillFilters = () => {
    addOption(byId("severity"), 0, "any");
    SEVERITIES.forEach((name, i) => { if (i > 0 && name !== "" && name !== "context") addOption(byId("severity"), i, name + " and worse"); });
    for (const [id, list] of [["product", names.products], ["originator", names.originators]]) {
        addOption(byId(id), "", "any");
        list.map((name, i) => [name, i]).sort((a, b) => (a[0] < b[0] ? -1 : 1)).forEach(([name, i]) => addOption(byId(id), i, name));
    }
    const MOST = 1000; // proposals
    for (const [id, list] of [["components", names.who], ["contexts", names.contexts]])
        list.filter((name) => name !== "").slice(0, MOST).forEach((name) => addOption(byId(id), name, name));
    SEVERITIES.forEach((name, i) => {
        if (!name) return;
        const sample = make("i");
        sample.style.background = colorOf(i);
        const entry = make("span");
        entry.append(sample, name);
        byId("legend").append(entry);
    });
};

let delay = 0;
const soon = () => { clearTimeout(delay); delay = setTimeout(filter, 60); };
fillFilters();
byId("about").textContent = `${total} records, written ${names.written} by qdlogview ${names.version}`;
for (const id of ["component", "context", "text"]) byId(id).addEventListener("input", soon);
for (const id of ["severity", "product", "originator", "regex", "case"]) byId(id).addEventListener("change", filter);
byId("filters").addEventListener("submit", (event) => event.preventDefault());
byId("clear").addEventListener("click", () => { byId("filters").reset(); from = -Infinity; until = Infinity; filter(); });
byId("unit").addEventListener("change", draw);
byId("zone").addEventListener("change", () => { isLocal = byId("zone").value === "local"; tell(); draw(); fillRows(false); });
byId("out").addEventListener("click", () => zoom(-Infinity, Infinity));
byId("counts").addEventListener("toggle", () => { if (byId("counts").open) tabulate(); });
byId("theme").addEventListener("click", () => {
    const isDark = getComputedStyle(document.documentElement).getPropertyValue("--paper").trim() === "#0d1117";
    document.documentElement.dataset.theme = isDark ? "light" : "dark";
    paint();
});
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => paint());
for (const event of ["focus", "blur"]) canvas.addEventListener(event, () => paint());
new ResizeObserver(() => { paint(); fillRows(false); }).observe(view);
filter();
requestIdleCallback(lower);
})();
