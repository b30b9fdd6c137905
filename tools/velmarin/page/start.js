
"use strict";
// All text of the report enters the page through textContent or title, never as markup.

const data = JSON.parse(document.getElementById("data").textContent);

// The kinds of bytes, in the order of the data.
const KINDS = [
  {key: "free", label: data.applied ? "could still be freed" : "can be freed"},
  {key: "freed", label: "freed by this run"},
  {key: "shared", label: data.applied ? "shared before" : "already shared"},
  {key: "stuck", label: "cannot be shared"},
];

const byId = (id) => document.getElementById(id);

function element(kind, text = "", className = "") {
  const made = document.createElement(kind);
  made.textContent = text;
  made.className = className;
  return made;
}

function swatched(kind, label, made = element("span")) {
  made.append(element("span", "", "swatch " + kind.key), label);
  return made;
}

function sizeText(bytes) {
  const units = ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];
  let unit = 0;
  while (bytes >= (unit === 0 ? 1024 : 1023.95) && unit < units.length - 1) {
    bytes /= 1024;
    unit += 1;
  }
  const text = unit === 0 ? Math.round(bytes).toString() : bytes.toFixed(1).replace(/\.0$/, "");
  return text + " " + units[unit];
}

const countText = (count) => count.toLocaleString("en-US");
const valueText = ({size, count}) => size === undefined ? countText(count) : sizeText(size);

// Reads a group from the data: the size of each file; the bytes of each kind in each share (its
// files on one file system); the files.
function readGroup([size, shares, files]) {
  const amounts = KINDS.map((_, kind) => shares.reduce((sum, share) => sum + share[kind], 0));
  return {size, shares, files, amounts};
}

const groups = data.groups.map(readGroup);
const totals = KINDS.map((_, kind) => groups.reduce((sum, group) => sum + group.amounts[kind], 0));
const nameOf = (file) => data.directories[file[0]] + file[1];
