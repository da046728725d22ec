// The page: asks for numbers once a second and shows what the model makes of them. Texts from elsewhere only ever become
// text nodes.
"use strict";

const LOOK_MILLISECONDS = 1000;
const ANSWER_MILLISECONDS = 5000;
const DETAIL_ROWS_MAX = 500;

const find = (id) => document.getElementById(id);
const model = new Model();
const view = { chosen: null, filter: "", paused: false, sort: { key: null, down: true }, lastAnswer: null };

// Seconds since 1970 as of the page's opening, and from there on a clock that does not jump.
const opened = Date.now() - performance.now();
const nowSeconds = () => (opened + performance.now()) / 1000;
const clockText = (seconds) => new Date(seconds * 1000).toLocaleTimeString("en-GB");

// --- tables ---

// Shows rows in a table and changes only what has changed, so that focus, selection and scrolling stay.
class TableView {
  constructor(table, columns, onSort) {
    this.table = table;
    this.columns = columns;
    this.rows = new Map();
    const head = table.createTHead().insertRow();
    this.heads = columns.map((column) => {
      const cell = document.createElement("th");
      cell.scope = "col";
      cell.classList.toggle("text", Boolean(column.text));
      if (onSort) {
        const button = document.createElement("button");
        button.type = "button";
        button.textContent = column.title;
        button.addEventListener("click", () => onSort(column.key));
        cell.append(button);
      } else {
        cell.textContent = column.title;
      }
      if (column.help) cell.title = column.help;
      head.append(cell);
      return cell;
    });
    this.body = table.createTBody();
  }

  markSort(sort) {
    this.columns.forEach((column, i) => {
      if (sort.key === column.key) this.heads[i].setAttribute("aria-sort", sort.down ? "descending" : "ascending");
      else this.heads[i].removeAttribute("aria-sort");
    });
  }

  // items: {key, cells: [{text, kind}], over, chosen, choose}
  show(items) {
    const keys = new Set(items.map((item) => item.key));
    for (const [key, row] of this.rows) {
      if (!keys.has(key)) {
        row.remove();
        this.rows.delete(key);
      }
    }
    const quiet = !this.table.matches(":hover") && !this.table.contains(document.activeElement);
    let previous = null;
    for (const item of items) {
      let row = this.rows.get(item.key);
      if (!row) {
        row = this.make(item);
        this.rows.set(item.key, row);
        this.body.append(row);
      }
      if (quiet && (previous ? previous.nextSibling : this.body.firstChild) !== row) {
        this.body.insertBefore(row, previous ? previous.nextSibling : this.body.firstChild);
      }
      previous = row;
      row.classList.toggle("over", Boolean(item.over));
      row.classList.toggle("chosen", Boolean(item.chosen));
      item.cells.forEach(({ text, kind }, i) => {
        const cell = row.cells[i];
        const place = cell.firstElementChild ?? cell;
        if (place.textContent !== text) {
          place.textContent = text;
          if (this.columns[i].text) cell.title = text;
        }
        const name = [this.columns[i].text ? "text" : "", kind ?? ""].join(" ").trim();
        if (cell.className !== name) cell.className = name;
      });
    }
  }

  make(item) {
    const row = document.createElement("tr");
    item.cells.forEach((_, i) => {
      const cell = row.insertCell();
      if (i === 0 && item.choose) {
        const button = document.createElement("button");
        button.type = "button";
        button.addEventListener("click", item.choose);
        cell.append(button);
      }
    });
    return row;
  }
}

const contextTable = new TableView(find("contexts"), CONTEXT_COLUMNS, (key) => {
  view.sort = { key, down: view.sort.key === key ? !view.sort.down : !CONTEXT_COLUMNS.find((column) => column.key === key).text };
  document.activeElement.blur();
  show();
});

function sorted(contexts) {
  const { key, down } = view.sort;
  const value = key === null ? hurts : (context) => context[key];
  const order = (a, b) => {
    const [x, y] = [value(a), value(b)];
    if (!isKnown(x) || !isKnown(y)) return isKnown(y) - isKnown(x);
    const less = typeof x === "string" ? x.localeCompare(y) : x - y;
    return down ? -less : less;
  };
  return contexts.map((context, i) => [context, i]).sort(([a, i], [b, j]) => order(a, b) || i - j).map(([context]) => context);
}

const matches = (...texts) => texts.some((text) => text.toLowerCase().includes(view.filter));

function showContexts() {
  const shown = sorted(model.contexts.filter((context) => matches(context.program, context.context, context.state,
    ...context.rows.map((row) => row.labels.topic ?? ""))));
  contextTable.markSort(view.sort);
  contextTable.show(shown.map((context) => ({
    key: context.key,
    over: context.over,
    chosen: context.key === view.chosen,
    choose: () => choose(context.key === view.chosen ? null : context.key),
    cells: CONTEXT_COLUMNS.map((column) => ({
      text: column.text ? context[column.key] : column.show(context[column.key]),
      kind: kindOf(column, context),
    })),
  })));
  find("none").hidden = model.contexts.length > 0 || view.lastAnswer === null;
}

function kindOf(column, context) {
  if (column.key === "state") return context.hangs && !context.over ? "bad" : "";
  if (!(context[column.key] > 0)) return "";
  return column.bad ? "bad" : column.warn ? "warn" : "";
}

// --- details of one context ---

let detailTables = new Map();

function showFieldValue(field, value, rate) {
  if (field.type === "recent_maximum") return showIn(field.unit, value.last_10s);
  if (field.type === "histogram") {
    const { last_10s: recent } = value;
    return recent.count > 0 ? `${showIn(field.unit, recent.p50)} / ${showIn(field.unit, recent.p99)}` : "–";
  }
  // Some gauges are ids.
  const text = field.type === "gauge" && field.unit === "" ? String(value) : showIn(field.unit, value);
  return isKnown(rate) && rate > 0 ? `${text} (${showIn(field.unit, rate)}/s)` : text;
}

function showIn(unit, value) {
  if (unit === "nanoseconds") return showDuration(Math.round(value));
  const number = showNumber(value);
  return unit === "bytes" ? number + (/[kMG]$/.test(number) ? "B" : " B") : number;
}

function showDetails() {
  const context = model.contexts.find((one) => one.key === view.chosen);
  find("details").hidden = !context;
  find("plots-title").textContent = context ? `${context.program}, context ${context.context}` : "All contexts";
  if (!context) return;
  find("details-title").textContent = `${context.program}, context ${context.context}: ${context.state}`;
  const allRows = new Set([...context.rows, ...rowsWithoutContext(context.look)]);
  for (const [kindName, title] of ROW_TABLES) {
    const kind = context.process.kinds?.[kindName];
    const rows = [...allRows].filter((row) => row.kind === kindName && matches(...Object.values(row.labels)));
    if (kind && rows.length > 0) showDetailTable(context, kindName, title, kind, rows);
    else if (detailTables.has(kindName)) {
      detailTables.get(kindName).place.remove();
      detailTables.delete(kindName);
    }
  }
}

function showDetailTable(context, kindName, title, kind, rows) {
  const labels = Object.keys(rows[0].labels).filter((label) => label !== "context" && label !== "handle");
  const fields = Object.entries(kind.fields);
  if (!detailTables.has(kindName)) {
    const place = document.createElement("div");
    const scroll = document.createElement("div");
    scroll.className = "scroll";
    const heading = document.createElement("h3");
    const table = document.createElement("table");
    scroll.append(table);
    place.append(heading, scroll);
    find("tables").append(place);
    const columns = [...labels.map((label) => ({ title: label, text: true })),
      ...fields.map(([name, field]) => ({
        title: name.replaceAll("_", " ") + (field.type === "histogram" ? " p50 / p99" : ""), help: field.help }))];
    detailTables.set(kindName, { place, heading, table: new TableView(table, columns) });
  }
  const { heading, table } = detailTables.get(kindName);
  heading.textContent = rows.length > DETAIL_ROWS_MAX ? `${title}: the first ${DETAIL_ROWS_MAX} of ${rows.length}; filter for others`
    : `${title} (${rows.length})`;
  table.show(rows.slice(0, DETAIL_ROWS_MAX).map((row) => ({
    key: row.id,
    over: context.over,
    cells: [...labels.map((label) => ({ text: row.labels[label] })),
      ...fields.map(([name, field]) => ({
        text: showFieldValue(field, row.values[name], field.type === "counter" ? context.look.rate(row, name) : null) }))],
  })));
}

function choose(key) {
  view.chosen = key;
  find("tables").replaceChildren();
  detailTables = new Map();
  show();
}

// --- plots ---

const PLOTS = [
  { title: "Messages per second", show: showNumber, series: [["received", "received"], ["sent", "sent"]] },
  { title: "Trouble per second", show: showNumber,
    series: [["lostRate", "lost"], ["droppedRate", "dropped"], ["wouldBlockRate", "would block"]] },
  { title: "Longest callback of the last 10 s", show: showDuration, series: [["longest", "longest callback"]] },
  { title: "Latency of the last 10 s", show: showDuration, series: [["latencyMedian", "median"], ["latency", "99 %"]] },
];

function makePlots() {
  const style = getComputedStyle(document.documentElement);
  const colour = (name) => style.getPropertyValue(name).trim();
  find("plots").replaceChildren();
  for (const plot of PLOTS) {
    const figure = document.createElement("figure");
    const caption = document.createElement("figcaption");
    caption.textContent = plot.title;
    figure.append(caption);
    find("plots").append(figure);
    const axis = { stroke: colour("--dim"), grid: { stroke: colour("--grid"), width: 1 }, ticks: { stroke: colour("--grid") } };
    plot.chart = new uPlot({
      width: Math.max(figure.clientWidth - 16, 100),
      height: 180,
      cursor: { sync: { key: "plots" } },
      scales: { y: { range: (_, low, high) => [0, high > 0 ? high * 1.1 : 1] } },
      axes: [{ ...axis, space: 90, values: (_, ticks) => ticks.map(clockText) }, { ...axis, size: 70, values: (_, ticks) => ticks.map((tick) => plot.show(plot.show === showDuration ? Math.round(tick) : tick)) }],
      series: [{ label: "time", value: (_, seconds) => (isKnown(seconds) ? clockText(seconds) : "–") }, ...plot.series.map(([, label], i) => ({
        label, points: { show: false }, stroke: colour(`--plot-${i + 1}`), width: 2, dash: i === 2 ? [4, 3] : undefined,
        value: (_, value) => plot.show(value) }))],
    }, plotData(plot), figure);
  }
}

function plotData(plot) {
  const series = model.history.get(view.chosen ?? "") ?? null;
  return series ? [series.now, ...plot.series.map(([key]) => series[key])] : [[], ...plot.series.map(() => [])];
}

// Without a pointer on it, the legend tells the latest values.
function showPlot({ chart, ...plot }) {
  const data = plotData(plot);
  chart.setData(data);
  if (!isKnown(chart.cursor.idx)) chart.setLegend({ idx: data[0].length - 1 });
}

function fitPlots() {
  for (const plot of PLOTS) {
    plot.chart.setSize({ width: Math.max(plot.chart.root.parentElement.clientWidth - 16, 100), height: 180 });
  }
}

// --- the whole ---

function showStatus() {
  const living = new Set(model.contexts.filter((context) => !context.over).map((context) => context.process));
  const troubled = [...living].filter((process) => process.state !== "running").length;
  const parts = [`${living.size} process${living.size === 1 ? "" : "es"}`,
    `${model.contexts.filter((context) => !context.over).length} contexts`];
  if (troubled > 0) parts.push(`${troubled} stopped or hanging`);
  if (view.paused) parts.push("paused");
  const text = view.lastAnswer === null ? "Waiting for the first numbers." : parts.join(" · ");
  if (find("status").textContent !== text) find("status").textContent = text;
}

function show() {
  showContexts();
  showDetails();
  showStatus();
  for (const plot of PLOTS) showPlot(plot);
  find("unreadable").hidden = model.unreadable.length === 0;
  find("unreadable").querySelector("ul").replaceChildren(...model.unreadable.map((process) => {
    const item = document.createElement("li");
    item.textContent = process.fault;
    return item;
  }));
}

function showFault(text) {
  document.body.classList.toggle("stale", text !== "");
  find("fault").hidden = text === "";
  if (find("fault").textContent !== text) find("fault").textContent = text;
}

async function look() {
  if (!view.paused && !document.hidden) {
    try {
      const answer = await fetch("live.json", { signal: AbortSignal.timeout(ANSWER_MILLISECONDS) });
      if (!answer.ok) throw new Error((await answer.text()).trim());
      const numbers = await answer.json();
      if (!view.paused) {
        model.take(numbers, nowSeconds());
        view.lastAnswer = nowSeconds();
        showFault("");
        show();
      }
    } catch (error) {
      const since = view.lastAnswer === null ? "" : ` What is shown is of ${clockText(view.lastAnswer)}.`;
      showFault(`price_stat does not answer (${error.message}).${since}`);
    }
  }
  setTimeout(look, LOOK_MILLISECONDS);
}

function pause() {
  view.paused = !view.paused;
  find("pause").setAttribute("aria-pressed", String(view.paused));
  find("pause").textContent = view.paused ? "Go on" : "Pause";
  showStatus();
}

function changeTheme() {
  const root = document.documentElement;
  const dark = root.dataset.theme ? root.dataset.theme === "dark" : matchMedia("(prefers-color-scheme: dark)").matches;
  root.dataset.theme = dark ? "light" : "dark";
  makePlots();
}

find("pause").addEventListener("click", pause);
find("theme").addEventListener("click", changeTheme);
find("back").addEventListener("click", () => choose(null));
find("filter").addEventListener("input", (event) => {
  view.filter = event.target.value.trim().toLowerCase();
  show();
});
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", makePlots);
addEventListener("resize", fitPlots);
document.addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.altKey || event.metaKey) return;
  if (event.key === "Escape") {
    document.activeElement.blur();
    choose(null);
  } else if (!(event.target instanceof HTMLInputElement)) {
    const act = { "/": () => find("filter").focus(), p: pause, t: changeTheme }[event.key];
    if (act) {
      event.preventDefault();
      act();
    }
  }
});

makePlots();
look();
