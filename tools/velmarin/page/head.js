
// --- What was scanned, and the figures. ---

function showSystems() {
  for (const {type, label, mount, source, sharing} of data.systems) {
    const item = element("li", type + (label ? ` “${label}” at ` : " at "));
    item.append(element("span", mount, "name"), " on ", element("span", source, "name"), ", ");
    if (sharing) {
      item.append("can share data");
    } else {
      swatched(KINDS[3], "cannot share data", item);
    }
    byId("systems").append(item);
  }
}

function showFigures() {
  for (const {label, kind, ...value} of data.figures) {
    const figure = element("div");
    figure.append(element("b", valueText(value)));
    byId("figures").append(kind === undefined ? figure : swatched(KINDS[kind], "", figure));
    figure.append(kind === undefined ? label : KINDS[kind].label);
  }
}

function showShares() {
  const texts = [];
  KINDS.forEach((kind, number) => {
    if (totals[number] > 0) {
      const part = element("span", "", kind.key);
      part.style.flexGrow = totals[number];
      part.title = `${sizeText(totals[number])} ${kind.label}`;
      texts.push(part.title);
      byId("shares").append(part);
    }
  });
  byId("shares").setAttribute("role", "img");
  byId("shares").setAttribute("aria-label", texts.join(", "));
}

function showHead() {
  byId("about").textContent = data.about;
  showSystems();
  for (const note of data.notes) {
    byId("notes").append(element("p", note));
  }
  showFigures();
  showShares();
}

// --- The history: the total freed after each run. ---

const MAX_RUNS = 1000;  // the newest, in the table

const dayText = (seconds) => new Date(seconds * 1000).toLocaleString("sv-SE").slice(0, 16);

function curvePath(points, isBelow) {
  const path = document.createElementNS("http://www.w3.org/2000/svg", "path");
  const line = points.map(([x, y]) => `${x} ${y}`).join(" L");
  path.setAttribute("d", isBelow ? `M0 100 L${line} L1000 100 Z` : `M${line}`);
  path.setAttribute("class", isBelow ? "below" : "line");
  return path;
}

// A step curve: the sum rises at each run and stays level until the next.
function curvePoints() {
  const [first, last] = [data.history[0].start, data.history.at(-1).start];
  const whole = data.history.reduce((sum, run) => sum + run.freed, 0);
  const points = [];
  let sum = 0;
  for (const run of data.history) {
    const x = last > first ? 1000 * (run.start - first) / (last - first) : 0;
    const before = 97 - 92 * (whole > 0 ? sum / whole : 0);
    sum += run.freed;
    points.push([x, before], [x, 97 - 92 * (whole > 0 ? sum / whole : 0)]);
  }
  return {points: [[0, 97], ...points, [1000, points.at(-1)[1]]], whole};
}

function showRuns() {
  const table = document.querySelector("#history table");
  const header = table.tHead.insertRow();
  header.append(element("th", "Run"), element("th", "Freed", "number"),
                element("th", "Files merged", "number"));
  for (const run of data.history.slice(-MAX_RUNS).reverse()) {
    const row = table.tBodies[0].insertRow();
    row.append(element("td", dayText(run.start)), element("td", sizeText(run.freed), "number"),
               element("td", countText(run.merged), "number"));
  }
}

function showHistory() {
  if (data.history.length === 0) {
    return;
  }
  byId("history").hidden = false;
  const {points, whole} = curvePoints();
  const picture = document.createElementNS("http://www.w3.org/2000/svg", "svg");
  picture.setAttribute("viewBox", "0 0 1000 100");
  picture.setAttribute("preserveAspectRatio", "none");
  picture.setAttribute("role", "img");
  const runs = data.history.length === 1 ? "1 run" : `${countText(data.history.length)} runs`;
  const text = `${sizeText(whole)} freed by ${runs}`;
  picture.setAttribute("aria-label", text);
  picture.append(curvePath(points, true), curvePath(points, false));
  byId("curve").append(element("div", text), picture);
  const [left, right] = byId("ends").children;
  left.textContent = dayText(data.history[0].start);
  right.textContent = data.history.length > 1 ? dayText(data.history.at(-1).start) : "";
  showRuns();
}
