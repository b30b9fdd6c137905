
// --- The map: a tree of directories. Each file of a share carries an equal part of its bytes. ---

const MAP_TILES = 150;  // further children of a directory share one tile

function newNode(name, parent) {
  return {name, parent, amounts: [0, 0, 0, 0], children: new Map(), files: []};
}

function directoryNode(root, path) {
  let node = root;
  for (const name of path.split("/").filter((part) => part !== "")) {
    if (!node.children.has(name)) {
      node.children.set(name, newNode(name, node));
    }
    node = node.children.get(name);
  }
  return node;
}

// What each file of a share carries.
function partsOf(group) {
  const counts = group.shares.map(() => 0);
  for (const file of group.files) {
    if (file[3] >= 0) {
      counts[file[3]] += 1;
    }
  }
  return group.shares.map((share, number) => share.map((bytes) => bytes / counts[number]));
}

function addUpwards(node) {
  for (const child of node.children.values()) {
    addUpwards(child);
    child.amounts.forEach((bytes, kind) => { node.amounts[kind] += bytes; });
  }
}

function buildTree() {
  const root = newNode("", null);
  const nodes = data.directories.map((path) => directoryNode(root, path));
  for (const group of groups) {
    const parts = partsOf(group);
    for (const file of group.files) {
      const amounts = parts[file[3]];
      if (amounts !== undefined && amounts.some((bytes) => bytes > 0)) {
        const node = nodes[file[0]];
        node.files.push({name: file[1], amounts});
        amounts.forEach((bytes, kind) => { node.amounts[kind] += bytes; });
      }
    }
  }
  addUpwards(root);
  return root;
}

const isDirectory = (node) => node.children !== undefined;

let shownKinds = [];
const weight = (node) => shownKinds.reduce((sum, kind) => sum + node.amounts[kind], 0);
const mainKind = (node) =>
  shownKinds.reduce((most, kind) => node.amounts[kind] > node.amounts[most] ? kind : most);

function amountsText(node) {
  return shownKinds.filter((kind) => node.amounts[kind] > 0)
    .map((kind) => `${sizeText(node.amounts[kind])} ${KINDS[kind].label}`).join(", ");
}

// The background of a tile: a stripe for each kind, as wide as its part.
function stripes(node) {
  const whole = weight(node);
  let end = 0;
  const stops = shownKinds.map((kind) => {
    const start = end;
    end += 100 * node.amounts[kind] / whole;
    return `var(--${KINDS[kind].key}-tint) ${start}% ${end}%`;
  });
  return `linear-gradient(to right, ${stops.join(", ")})`;
}

// Skips directories whose only content is another directory.
function collapseChain(node) {
  let name = node.name;
  while (node.files.length === 0 && node.children.size === 1) {
    [node] = node.children.values();
    name += "/" + node.name;
  }
  return {node, name: name + "/"};
}

function tilesOf(node) {
  const children = [...node.children.values(), ...node.files]
    .map((child) => ({child, bytes: weight(child)}))
    .filter(({bytes}) => bytes > 0).sort((a, b) => b.bytes - a.bytes);
  const tiles = children.slice(0, MAP_TILES).map(({child, bytes}) =>
    ({...(isDirectory(child) ? collapseChain(child) : {node: child, name: child.name}), bytes}));
  const rest = children.slice(MAP_TILES);
  if (rest.length > 0) {
    const amounts = KINDS.map((_, kind) =>
      rest.reduce((sum, {child}) => sum + child.amounts[kind], 0));
    tiles.push({node: {amounts}, name: countText(rest.length) + " more",
                bytes: rest.reduce((sum, {bytes}) => sum + bytes, 0)});
  }
  return tiles;
}

// The worst aspect ratio in a row of tiles of the given areas along a side.
function worstRatio(areas, side) {
  const sum = areas.reduce((total, area) => total + area, 0);
  return Math.max(...areas.map((area) => Math.max(side * side * area / (sum * sum),
                                                  sum * sum / (side * side * area))));
}

// Lays tiles (largest first) into a box, row by row along its shorter side. A row grows for as long
// as that makes its tiles squarer.
function layOut(tiles, box) {
  const total = tiles.reduce((sum, tile) => sum + tile.bytes, 0);
  const scale = box.width * box.height / total;
  const placed = [];
  let {x, y, width, height} = box;
  for (let start = 0; start < tiles.length;) {
    const side = Math.min(width, height);
    const areas = [tiles[start].bytes * scale];
    while (start + areas.length < tiles.length) {
      const longer = [...areas, tiles[start + areas.length].bytes * scale];
      if (worstRatio(longer, side) > worstRatio(areas, side)) {
        break;
      }
      areas.push(longer.at(-1));
    }
    const depth = areas.reduce((sum, area) => sum + area, 0) / side;
    let along = 0;
    for (const area of areas) {
      const tile = tiles[start];
      const length = area / depth;
      placed.push(width <= height
        ? {tile, x: x + along, y, width: length, height: depth}
        : {tile, x, y: y + along, width: depth, height: length});
      along += length;
      start += 1;
    }
    if (width <= height) {
      y += depth;
      height -= depth;
    } else {
      x += depth;
      width -= depth;
    }
  }
  return placed;
}

function drawTile(parent, {tile, x, y, width, height}, level) {
  const opens = isDirectory(tile.node);
  const kind = KINDS[mainKind(tile.node)];
  const box = element(opens ? "button" : "div", "", "tile " + kind.key);
  box.title = tile.name + "\n" + amountsText(tile.node);
  Object.assign(box.style, {left: x + "px", top: y + "px", width: width + "px",
                            height: height + "px", background: stripes(tile.node)});
  if (opens) {
    box.setAttribute("aria-label", box.title);
    box.addEventListener("click", () => goTo(tile.node));
  }
  if (width > 40 && height > 18) {
    box.append(element("span", tile.name));
  }
  if (width > 60 && height > 36) {
    box.append(element("span", width > 170 ? amountsText(tile.node) : sizeText(tile.bytes), "muted"));
  }
  parent.append(box);
  if (opens && level < 2 && width > 110 && height > 90) {
    drawTiles(parent, tile.node, {x: x + 8, y: y + 38, width: width - 13, height: height - 43},
              level + 1);
  }
}

function drawTiles(parent, node, box, level) {
  for (const spot of layOut(tilesOf(node), box)) {
    if (spot.width >= 3 && spot.height >= 3) {
      drawTile(parent, spot, level);
    }
  }
}

function showTrail(node) {
  const trail = byId("trail");
  trail.replaceChildren();
  const steps = [];
  for (let step = node; step !== null; step = step.parent) {
    steps.unshift(step);
  }
  for (const step of steps) {
    const button = element(step === node ? "span" : "button", step.name + "/", "name");
    if (step !== node) {
      button.addEventListener("click", () => goTo(step));
    }
    trail.append(button);
  }
  trail.append(element("span", "  " + amountsText(node), "muted"));
}

let shownNode = null;

function showMap(node) {
  const map = byId("map");
  shownNode = node;
  map.replaceChildren();
  showTrail(node);
  drawTiles(map, node, {x: 0, y: 0, width: map.clientWidth, height: map.clientHeight}, 0);
}

// The pressed button is then gone, so keyboard focus moves to the trail.
function goTo(node) {
  showMap(node);
  byId("trail").focus({preventScroll: true});
}

function kindChoice(kind) {
  const box = element("input");
  box.type = "checkbox";
  box.checked = shownKinds.includes(kind);
  box.addEventListener("change", () => {
    shownKinds = shownKinds.filter((shown) => shown !== kind);
    if (box.checked) {
      shownKinds.push(kind);
    } else if (shownKinds.length === 0) {
      shownKinds.push(kind);
      box.checked = true;
    }
    shownKinds.sort();
    showMap(shownNode);
  });
  const label = element("label");
  label.append(box, " ");
  return swatched(KINDS[kind], KINDS[kind].label, label);
}

// Already shared bytes are hidden at first: they need no action.
function startMap() {
  const usedKinds = [0, 1, 2, 3].filter((kind) => totals[kind] > 0);
  if (usedKinds.length === 0) {
    byId("map").remove();
    byId("trail").textContent = "Nothing is left to merge.";
    return;
  }
  shownKinds = usedKinds.filter((kind) => usedKinds.length === 1 || KINDS[kind].key !== "shared");
  byId("kinds").append(...usedKinds.map(kindChoice));
  showMap(collapseChain(buildTree()).node);
  window.addEventListener("resize", () => showMap(shownNode));
}
