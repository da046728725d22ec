// What the numbers of two looks at all processes say: contexts with totals, rates and states.
"use strict";

// Columns of the table of contexts, in the order in which they are shown. What hurts most weighs most.
const CONTEXT_COLUMNS = [
  { key: "program", title: "Program", text: true },
  { key: "context", title: "Context", text: true },
  { key: "state", title: "State", text: true },
  { key: "received", title: "Received/s", show: showNumber },
  { key: "sent", title: "Sent/s", show: showNumber },
  { key: "lost", title: "Lost", show: showNumber, bad: true, hurts: 1e6 },
  { key: "dropped", title: "Dropped", show: showNumber, bad: true, hurts: 1e5 },
  { key: "wouldBlock", title: "Would block", show: showNumber, warn: true, hurts: 1e3 },
  { key: "failures", title: "Failures", show: showNumber, bad: true, hurts: 1e5 },
  { key: "busy", title: "In callbacks", show: showShare },
  { key: "longest", title: "Longest callback", show: showDuration },
  { key: "latency", title: "Latency p99", show: showDuration },
];

// Kinds of rows in the details of a context. What belongs to no context is the whole process's.
const ROW_TABLES = [
  ["receiver", "Receivers"], ["source", "Sources"], ["response", "Responses"], ["command_channel", "Command channel"],
  ["dispatch_thread", "Dispatch thread"], ["engine_context", "Engine"], ["peer", "Peers"], ["network", "Network"],
  ["engine_receiver", "Receivers in the engine"], ["engine_source", "Sources in the engine"],
  ["event_queue", "Event queues of the process"], ["log", "Log lines of the process"],
  ["triage", "Triage requests to the process"],
];

// null and undefined: not counted by the process.
const isKnown = (value) => value !== null && value !== undefined;
const plus = (one, other) => (isKnown(one) ? one + (other ?? 0) : other ?? null);

function showNumber(value) {
  if (!isKnown(value)) return "–";
  const size = Math.abs(value);
  for (const [unit, sign] of [[1e9, " G"], [1e6, " M"], [1e4, " k"]]) {
    if (size >= unit) return (value / (unit === 1e4 ? 1e3 : unit)).toFixed(1) + sign;
  }
  return Number.isInteger(value) ? String(value) : value.toFixed(size < 10 ? 1 : 0);
}

// Of nanoseconds.
function showDuration(value) {
  if (!isKnown(value)) return "–";
  for (const [unit, sign] of [[1e9, " s"], [1e6, " ms"], [1e3, " µs"]]) {
    if (value >= unit) return (value / unit).toFixed(value >= 100 * unit ? 0 : 1) + sign;
  }
  return value + " ns";
}

function showShare(value) {
  return isKnown(value) ? (value * 100).toFixed(value < 0.1 ? 1 : 0) + " %" : "–";
}

const processKey = (process) => `${process.path} ${process.start_monotonic_ns}`;

// A process of the latest look, with the one before for rates.
class ProcessLook {
  constructor(process, before) {
    this.process = process;
    this.rows = process.rows ?? [];
    const seconds = before ? (process.taken_monotonic_ns - before.process.taken_monotonic_ns) / 1e9 : 0;
    this.seconds = seconds > 0 && process.state !== "ended" ? seconds : null;
    this.before = this.seconds ? new Map(before.rows.map((row) => [row.id, row])) : null;
  }

  // How much a counter grew in a second; null when that is not known.
  rate(row, field) {
    if (!this.before || typeof row.values[field] !== "number") return null;
    // A row that was not there before began with 0.
    const grown = row.values[field] - (this.before.get(row.id)?.values[field] ?? 0);
    return grown >= 0 ? grown / this.seconds : null;
  }
}

// The sum of a field over rows; null when none of them has it.
function sum(rows, kind, field, number = (row) => row.values[field]) {
  let total = null;
  for (const row of rows) {
    if (row.kind === kind && row.values[field] !== undefined) {
      const value = number(row);
      if (!isKnown(value)) return null;
      total = (total ?? 0) + value;
    }
  }
  return total;
}

function largest(rows, kind, field, number) {
  const values = rows.filter((row) => row.kind === kind && isKnown(row.values[field])).map((row) => number(row.values[field]));
  return values.length > 0 ? Math.max(...values) : null;
}

// The state of a context; of all contexts of a process that is stopped or has ended.
function stateOf(process, labels) {
  const context = process.contexts?.find((one) => one.context === labels.context && one.handle === labels.handle);
  return context && !["stopped", "ended"].includes(process.state) ? context : process;
}

function stateText({ state, hang_ns: hang }) {
  if (state === "in_callback") return `in a callback for ${showDuration(hang)}`;
  if (state === "not_looping") return `not looping for ${showDuration(hang)}`;
  return state === "ended" ? "ended, page left behind" : state;
}

function contextOf(look, rows, labels) {
  const { process } = look;
  const state = stateOf(process, labels);
  const rate = (kind, field) => sum(rows, kind, field, (row) => look.rate(row, field));
  const total = (...places) => places.reduce((all, [kind, field]) => plus(all, sum(rows, kind, field)), null);
  const callbackTime = rate("context", "callback_time");
  const latency = (quantile) => largest(rows, "engine_context", "latency",
    (value) => (value.last_10s.count > 0 ? value.last_10s[quantile] : null));
  return {
    key: `${processKey(process)} ${labels.handle ?? ""} ${labels.context ?? ""}`,
    process, rows, look,
    program: `${process.program}.${process.process}`,
    context: labels.context ?? "",
    state: stateText(state),
    hangs: ["stopped", "in_callback", "not_looping"].includes(state.state),
    over: process.state === "ended",
    received: rate("receiver", "messages") ?? rate("engine_context", "delivered") ?? rate("engine_receiver", "messages"),
    sent: plus(rate("source", "messages") ?? rate("engine_source", "messages"), rate("response", "messages")),
    lost: total(["receiver", "lost_messages"]),
    lostRate: rate("receiver", "lost_messages"),
    dropped: total(["engine_context", "dropped"]),
    droppedRate: rate("engine_context", "dropped"),
    wouldBlock: total(["source", "nonblocking_failures"], ["response", "would_block"], ["command_channel", "would_block"]),
    wouldBlockRate: plus(rate("source", "nonblocking_failures"), rate("response", "would_block")),
    failures: total(["receiver", "failures"], ["source", "failures"], ["response", "failures"]),
    busy: isKnown(callbackTime) ? callbackTime / 1e9 : null,
    longest: largest(rows, "context", "longest_callback", (value) => value.last_10s),
    latency: latency("p99"),
    latencyMedian: latency("p50"),
  };
}

// What belongs to the whole process.
const rowsWithoutContext = (look) => look.rows.filter((row) => row.labels.context === undefined);

// The contexts of a process; one without a name where it has none.
function contextsOf(look) {
  const groups = new Map();
  for (const row of look.rows) {
    const { context, handle } = row.labels;
    if (context === undefined || Object.values(row.labels).every((label) => label === "other")) continue;
    const key = `${handle} ${context}`;
    if (!groups.has(key)) groups.set(key, { labels: { context, handle }, rows: [] });
    groups.get(key).rows.push(row);
  }
  if (groups.size === 0) groups.set("", { labels: {}, rows: look.rows });
  return [...groups.values()].map(({ labels, rows }) => contextOf(look, rows, labels));
}

function hurts(context) {
  let pain = context.hangs ? 1e12 : 0;
  for (const { key, hurts: weight } of CONTEXT_COLUMNS) {
    if (weight) pain += weight * Math.min(context[key] ?? 0, 1e3);
  }
  pain += (context.longest ?? 0) / 1e6 + (context.busy ?? 0) * 100;
  return context.over ? pain - 1e13 : pain;
}

// Takes in one look after the other.
class Model {
  constructor() {
    this.looks = new Map(); // by process
    this.contexts = [];
    this.unreadable = [];
    this.gone = []; // contexts whose processes ended since the page was opened
    this.history = new Map(); // of each context, and of "" for all: arrays that are equally long
  }

  // now: seconds on a clock that does not jump.
  take(document, now) {
    const readable = document.processes.filter((process) => process.state !== "unreadable");
    this.unreadable = document.processes.filter((process) => process.state === "unreadable");
    const looks = new Map(readable.map((process) => {
      const key = processKey(process);
      const known = this.looks.get(key);
      // Questions in quick succession may get the same answer twice: that is no new look.
      return [key, known?.process.taken_monotonic_ns === process.taken_monotonic_ns ? known : new ProcessLook(process, known)];
    }));
    for (const context of this.contexts) {
      if (!looks.has(processKey(context.process)) && !context.gone) {
        this.gone.push({ ...context, gone: now, over: true, state: `ended ${new Date(now * 1000).toLocaleTimeString("en-GB")}`,
          received: null, sent: null, busy: null, longest: null, latency: null });
      }
    }
    this.gone = this.gone.filter((context) => now - context.gone < GONE_SHOWN_SECONDS);
    this.looks = looks;
    const living = [...looks.values()].flatMap(contextsOf);
    this.contexts = [...living, ...this.gone];
    this.remember(living.filter((context) => !context.over), now);
  }

  remember(living, now) {
    const keys = HISTORY_FIELDS;
    const all = Object.fromEntries(keys.map((key) => [key, null]));
    for (const context of living) {
      for (const key of keys) {
        const value = context[key];
        if (isKnown(value)) {
          all[key] = ["longest", "latency", "latencyMedian", "busy"].includes(key) ? Math.max(all[key] ?? 0, value) : (all[key] ?? 0) + value;
        }
      }
      this.append(context.key, context, now);
    }
    this.append("", all, now);
    for (const [key, series] of this.history) {
      if (key !== "" && now - series.now.at(-1) > HISTORY_SECONDS) this.history.delete(key);
    }
  }

  append(key, values, now) {
    if (!this.history.has(key)) {
      this.history.set(key, Object.fromEntries(["now", ...HISTORY_FIELDS].map((field) => [field, []])));
    }
    const series = this.history.get(key);
    series.now.push(now);
    for (const field of HISTORY_FIELDS) series[field].push(values[field] ?? null);
    while (now - series.now[0] > HISTORY_SECONDS) {
      for (const list of Object.values(series)) list.shift();
    }
  }
}

const GONE_SHOWN_SECONDS = 60;
const HISTORY_SECONDS = 900;
const HISTORY_FIELDS = ["received", "sent", "lostRate", "droppedRate", "wouldBlockRate", "busy", "longest", "latency", "latencyMedian"];
