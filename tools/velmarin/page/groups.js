
// --- The table of groups: a page of rows at a time, however many there are. ---

const PAGE_ROWS = 100;
const LIST_STEP = 200;  // names of a group shown at a time

const kindColumns = KINDS
  .map((kind, number) => ({kind, title: kind.label, value: (group) => group.amounts[number]}))
  .filter((_, number) => totals[number] > 0 || number === 0);
const COLUMNS = [
  ...kindColumns,
  {title: "size of each", value: (group) => group.size},
  {title: "files", value: (group) => group.files.length, text: countText},
  {title: "names", value: (group) => nameOf(group.files[0]), names: true},
];

let sorting = {column: COLUMNS[0], descending: true};
let searched = "";
let shownGroups = groups;
let firstRow = 0;

function compare(a, b) {
  const [left, right] = [sorting.column.value(a), sorting.column.value(b)];
  const order = left < right ? -1 : Number(left > right);
  return sorting.descending ? -order : order;
}

const isFound = (file) => nameOf(file).toLowerCase().includes(searched);

function chooseGroups() {
  shownGroups = groups.filter((group) => searched === "" || group.files.some(isFound));
  shownGroups.sort(compare);
  firstRow = 0;
  showGroups();
}

function fileItem(file) {
  const item = element("li");
  const word = data.words[file[2]];
  item.append(element("span", word, "word " + word.replace(" ", "-")),
              element("span", nameOf(file), "name"));
  if (file[4]) {
    item.append(element("span", ` (${file[4]})`, "muted"));
  }
  return item;
}

// A list that grows by a step each time its button is pressed.
function growingList(parent, items, makeItem) {
  const list = element("ul");
  const more = element("button", "", "more");
  const grow = () => {
    const made = list.childElementCount;
    list.append(...items.slice(made, made + LIST_STEP).map(makeItem));
    const left = items.length - list.childElementCount;
    more.hidden = left === 0;
    more.textContent = `Show more (${countText(left)} left)`;
  };
  more.addEventListener("click", grow);
  grow();
  parent.append(list, more);
}

// Builds the list of files only when it is opened.
function namesCell(group) {
  const cell = element("td");
  const details = element("details");
  const shown = searched === "" ? group.files[0] : group.files.find(isFound);
  details.append(element("summary", nameOf(shown), "name"));
  details.addEventListener("toggle", () => growingList(details, group.files, fileItem),
                           {once: true});
  cell.append(details);
  return cell;
}

function numberCell(column, group) {
  const value = column.value(group);
  const cell = element("td", "", value === 0 ? "number none" : "number");
  cell.dataset.title = column.title;
  cell.append((column.text ?? sizeText)(value));
  if (column.kind && value > 0) {
    cell.prepend(element("span", "", "swatch " + column.kind.key));
  }
  return cell;
}

function groupRow(group) {
  const row = element("tr");
  row.append(...COLUMNS.map((column) =>
    column.names ? namesCell(group) : numberCell(column, group)));
  return row;
}

function headerCell(column) {
  const cell = element("th", "", column.names ? "" : "number");
  const button = element("button", column.title);
  button.addEventListener("click", () => {
    const again = sorting.column === column;
    sorting = {column, descending: again ? !sorting.descending : !column.names};
    showHeader();
    chooseGroups();
    document.querySelectorAll("#groups th button")[COLUMNS.indexOf(column)].focus();
  });
  if (sorting.column === column) {
    cell.setAttribute("aria-sort", sorting.descending ? "descending" : "ascending");
  }
  cell.append(button);
  return cell;
}

function showHeader() {
  const header = element("tr");
  header.append(...COLUMNS.map(headerCell));
  byId("groups").tHead.replaceChildren(header);
}

function pageButton(text, target, isUseful, onTurn) {
  const button = element("button", text);
  button.disabled = !isUseful;
  button.addEventListener("click", () => {
    firstRow = target;
    showGroups();
    onTurn(text);
  });
  return button;
}

function showPages(pages, isAtEnd) {
  const end = Math.min(firstRow + PAGE_ROWS, shownGroups.length);
  const last = Math.max(0, Math.ceil(shownGroups.length / PAGE_ROWS) - 1) * PAGE_ROWS;
  const onTurn = (text) => {
    if (isAtEnd) {
      byId("table").scrollIntoView();
    }
    [...pages.querySelectorAll("button")].find((button) => button.textContent === text)
      .focus({preventScroll: true});
  };
  pages.replaceChildren(
    pageButton("First", 0, firstRow > 0, onTurn),
    pageButton("Back", firstRow - PAGE_ROWS, firstRow > 0, onTurn),
    element("span", end === 0 ? "none" : `${countText(firstRow + 1)}–${countText(end)} of ` +
                                         countText(shownGroups.length)),
    pageButton("Next", firstRow + PAGE_ROWS, firstRow < last, onTurn),
    pageButton("Last", last, firstRow < last, onTurn));
}

function showGroups() {
  byId("groups").tBodies[0].replaceChildren(
    ...shownGroups.slice(firstRow, firstRow + PAGE_ROWS).map(groupRow));
  byId("found").textContent = searched === "" ? "" :
    `${countText(shownGroups.length)} of ${countText(groups.length)} groups`;
  document.querySelectorAll("nav.pages").forEach((pages, number) => {
    pages.hidden = groups.length <= PAGE_ROWS;
    showPages(pages, number === 1);
  });
}

function startGroups() {
  if (groups.length === 0) {
    byId("tools").remove();
    byId("groups").replaceWith(element("p", "No identical files were found."));
    return;
  }
  let waiting = 0;
  byId("search").addEventListener("input", () => {
    clearTimeout(waiting);
    waiting = setTimeout(() => {
      searched = byId("search").value.trim().toLowerCase();
      chooseGroups();
    }, 150);
  });
  sorting.column = kindColumns.find(({kind}) => totals[KINDS.indexOf(kind)] > 0) ?? COLUMNS[0];
  showHeader();
  chooseGroups();
}

// --- The rest: what was left out, compressed files and the run's counters. ---

function showOmissions() {
  if (data.omissionCounts.length === 0) {
    return;
  }
  const section = byId("omissions");
  section.hidden = false;
  section.append(element("p", data.omissionCounts.join(", ")));
  growingList(section, data.omissions, ([path, explanation]) => {
    const item = element("li");
    item.append(element("span", path, "name"), element("span", ` (${explanation})`, "muted"));
    return item;
  });
  if (data.unlisted > 0) {
    section.append(element("p", `${countText(data.unlisted)} more are not listed.`, "muted"));
  }
}

function showCompressed() {
  if (data.compressed.length > 0) {
    byId("compressed").hidden = false;
    growingList(byId("compressed"), data.compressed, (file) => element("li", nameOf(file), "name"));
  }
}

function showLists() {
  for (const rows of data.lists) {
    const table = element("table");
    for (const {label, ...value} of rows) {
      const row = table.insertRow();
      row.append(element("td", label), element("td", valueText(value), "number"));
    }
    byId("lists").append(table);
  }
}

showHead();
showHistory();
startGroups();
showOmissions();
showCompressed();
showLists();
startMap();  // last: its width depends on whether the page needs a scroll bar
