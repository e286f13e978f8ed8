'use strict';
/* Brings the page to life. What is recorded stands in the page's noscript elements, as the text that is read without
 * a script; here it is taken apart, and what is in sight of it put on the page. Recorded text is only ever handed on as it
 * stands there, with its markup characters already escaped. */
(() => {
  const one = (selector, root = document) => root.querySelector(selector);
  if (!one('.pane')) return; /* there are no incidents */

  const ROWS_AT_ONCE = 300, CHUNK = 40, PRINTED_RECORDS_MAX = 300;
  /* Measures of the drawing, in pixels and milliseconds: those of the one that needs no script. */
  const {LANE, NODE, AXIS, NAMES, RADIUS, SMALL, DIGIT, GAP, TIP, CORNER, TICK, DATE, DETOUR_MAX, BAND_MIN, CROWDED, ARROWS_MAX,
    STEPS} = JSON.parse(one('.pane').dataset.measures);

  const all = (selector, root = document) => [...root.querySelectorAll(selector)];
  const clamp = (value, least, most) => Math.max(least, Math.min(most, value));
  const ENTITIES = {amp: '&', lt: '<', gt: '>', quot: '"', '#39': "'"};
  const plain = html => {
    const text = html.includes('<') ? html.replace(/<[^>]*>/g, ' ') : html;
    return text.includes('&') ? text.replace(/&(amp|lt|gt|quot|#39);/g, (_, name) => ENTITIES[name]) : text;
  };

  const thousands = number => number.toLocaleString('en');

  const plainHtml = html => html.replace(/<[^>]*>/g, '');
  const encode = text => encodeURIComponent(text).replace(/%2F/g, '/');

  /* ---- Times, in microseconds since the Epoch; shown in the reader's zone --------------------------------------------- */

  const two = number => String(number).padStart(2, '0');
  const DAYS = ['Sun', 'Mon', 'Tue', 'Wed', 'Thu', 'Fri', 'Sat'];
  const dateOf = time => {
    const at = new Date(Math.floor(time / 1000));
    return `${DAYS[at.getDay()]} ${String(at.getFullYear()).padStart(4, '0')}-${two(at.getMonth() + 1)}-${two(at.getDate())}`;
  };
  const clockOf = (time, hasMilliseconds) => {
    const at = new Date(Math.floor(time / 1000));
    return `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}` +
      (hasMilliseconds ? '.' + String(at.getMilliseconds()).padStart(3, '0') : '');
  };
  const parseTime = text => {
    const fraction = /\.\d{3}(\d{3})Z$/.exec(text);
    return (Date.parse(text) || 0) * 1000 + (fraction ? Number(fraction[1]) : 0);
  };
  const offsetOf = time => -new Date(time / 1000).getTimezoneOffset() * 60e6;
  const zoneOf = time => {
    const parts = new Intl.DateTimeFormat('en-GB', {timeZoneName: 'short'}).formatToParts(new Date(time / 1000));
    return parts.find(part => part.type === 'timeZoneName').value;
  };
  const pauseText = microseconds => {
    const units = [[31536000, 'y'], [86400, 'd'], [3600, 'h'], [60, 'min'], [1, 's']];
    const seconds = Math.floor(microseconds / 1e6);
    const at = units.findIndex(([size]) => seconds >= size);
    if (at < 0) return '0 s';
    const rest = at < 3 ? Math.floor(seconds % units[at][0] / units[at + 1][0]) : 0;
    return `${Math.floor(seconds / units[at][0])} ${units[at][1]}` +
      (rest ? ` ${rest}${at === 2 ? '' : units[at + 1][1]}` : '');
  };

  /* ---- Taking the page apart ------------------------------------------------------------------------------------------ */

  const ROW = new RegExp('^id=("[^"]*"|[^ >]+)(?: class=("[^"]*"|\\w+))?(?: style=--d:(\\d+))?' +
    ' data-r="(\\d+) (\\d+) (\\d+) (\\d+) (\\d+)"><details>(<summary><b>(\\d+)</b> <time datetime=([^>]+)>([^<]*)</time>' +
    ' <i>([^]*?)</i> <bdi>([^]*?)</bdi>[^]*?</summary>)([^]*?)</details>');

  let items = [];       /* in the order of the tree: each behind its cause */
  let byNumber = [];    /* items by the numbers of their incidents */
  let byAnchor = new Map();
  let common = [];      /* what many have in common */
  let groups = [];      /* repeats: lists of items */
  let hasMilliseconds = false;

  const parseRow = (piece, at) => {
    const [, anchor, classes = '', depth = 0, lane, node, process, product, cause, summary, number, utc, clock, name,
      description, record] = ROW.exec(piece);
    return {at, anchor: plain(anchor.replace(/^"|"$/g, '')), classes, depth: Number(depth), lane: Number(lane),
      node, process, product, cause: Number(cause), summary, number: Number(number), time: parseTime(utc), clock, name,
      description, record, colour: Number((/c(\d)/.exec(classes) || [0, 0])[1]), group: -1, effects: 0, root: at, text: ''};
  };

  const parseRows = text => {
    const end = text.indexOf('<ol class=table>');
    if (end >= 0) common = text.slice(end).split('\n<li>').slice(1).map(row => row.replace(/<\/dl>[^]*$/, '').slice(4));
    let group = -1;
    for (const piece of (end < 0 ? text : text.slice(0, end)).split('\n<li ').slice(1)) {
      if (piece.startsWith('class=date')) continue;
      if (!piece.startsWith('id=')) {
        group = groups.push([]) - 1;
        continue;
      }
      const item = parseRow(piece, items.length);
      item.group = group;
      if (group >= 0) groups[group].push(item);
      if (piece.endsWith('\n</ul></details>') || piece.includes('\n</ul></details>\n</ul>')) group = -1;
      items.push(item);
    }
    for (const item of items) {
      byNumber[item.number] = item;
      byAnchor.set(item.anchor, item);
    }
    hasMilliseconds = items.length > 0 && items[0].clock.includes('.');
    for (const item of items) {
      item.cause = byNumber[item.cause] || null;
      if (item.cause && item.depth > 0) {
        item.root = item.cause.root;
        ++item.cause.effects;
      }
    }
  };

  /* Words are looked for in all that is recorded, and in the time as it is shown. */
  const commonTexts = [];
  const searchText = item => {
    if (item.text === '') {
      const number = commonNumber(item);
      if (number >= 0 && !commonTexts[number]) commonTexts[number] = plain(common[number]);
      item.text = (clockOf(item.time, hasMilliseconds) + ' ' + dateOf(item.time) + ' ' + item.anchor + ' ' +
        plain(item.summary.slice(item.summary.indexOf('</time>') + 7) + item.record) + ' ' +
        (number >= 0 ? commonTexts[number] : '')).toLowerCase();
    }
    return item.text;
  };
  const commonNumber = item => {
    const found = common.length > 0 && / table row (\d+)<\/dl>$/.exec(item.record);
    return found ? Number(found[1]) - 1 : -1;
  };

  /* ---- What is looked at ---------------------------------------------------------------------------------------------- */

  const look = {q: '', node: '', process: '', product: '', view: null, id: ''};
  const folded = new Set(), unfoldedGroups = new Set(), opened = new Set(); /* items, groups, items */
  let matching = []; /* items */
  let isMatching = [];

  const findMatching = () => {
    const words = look.q.toLowerCase().split(/\s+/).filter(word => word !== '');
    matching = items.filter(item => (look.node === '' || item.node === look.node) &&
      (look.process === '' || item.process === look.process) && (look.product === '' || item.product === look.product) &&
      words.every(word => searchText(item).includes(word)));
    isMatching = new Uint8Array(items.length);
    for (const item of matching) isMatching[item.at] = 1;
  };

  /* ---- The tree ------------------------------------------------------------------------------------------------------- */

  let list, observer, entries = [], chunks = [];
  let isPrinting = false;
  let rowHeight = 29;

  const makeEntries = () => {
    entries = [];
    let date = '', fold = Infinity; /* depth of the row whose effects are folded away */
    const doneGroups = new Set();
    const add = (entry, item) => {
      if (dateOf(item.time) !== date) {
        date = dateOf(item.time);
        entries.push({date});
      }
      entries.push(entry);
    };
    for (const item of matching) {
      if (item.depth > fold) continue;
      fold = folded.has(item.at) ? item.depth : Infinity;
      if (item.group >= 0 && !doneGroups.has(item.group)) {
        doneGroups.add(item.group);
        const members = groups[item.group].filter(member => isMatching[member.at]);
        if (members.length > 1) add({repeats: members}, members[0]);
        else unfoldedGroups.add(item.group);
      }
      if (item.group >= 0 && !unfoldedGroups.has(item.group) && !isPrinting) continue;
      if (item.group >= 0) entries.push({item});
      else add({item}, item);
    }
  };

  const repeatsHtml = members => {
    const [first] = members, last = members[members.length - 1];
    const isOneDay = dateOf(first.time) === dateOf(last.time);
    const until = (isOneDay ? '' : dateOf(last.time) + ' ') + clockOf(last.time, hasMilliseconds);
    return `<li data-g=${first.group} class="all c${first.colour}" style=--d:${first.depth}><details` +
      `${unfoldedGroups.has(first.group) ? ' open' : ''}><summary><b>\u00d7${members.length}</b> ` +
      `<time>${clockOf(first.time, hasMilliseconds)}</time> <i>${first.name}</i> <bdi>${first.description}</bdi> ` +
      `<u>until ${until}</u>${nodeOf(first)}</summary></details></li>`;
  };
  const nodeOf = item => (/ <u>[^]*<\/u>(?=<\/summary>$)/.exec(item.summary) || [''])[0];

  const rowHtml = item => {
    const quote = item.anchor.replace(/[&"]/g, sign => sign === '&' ? '&amp;' : '&quot;');
    const fold = item.effects === 0 ? '' : `<button type=button class=fold aria-expanded=${!folded.has(item.at)} ` +
      `aria-label="Effects of ${item.number}"></button>`;
    const isOpen = opened.has(item.at) || (isPrinting && matching.length <= PRINTED_RECORDS_MAX);
    const summary = item.summary.replace(/>[^<]*<\/time>/, `>${clockOf(item.time, hasMilliseconds)}</time>`);
    return `<li data-i=${item.at} id="${quote}"${item.classes ? ' class=' + item.classes : ''} style=--d:${item.depth}>` +
      `${fold}<details${isOpen ? ' open' : ''}>${summary}${isOpen ? recordHtml(item) : ''}</details></li>`;
  };

  /* All that is recorded, with what many have in common, and the way to the mark. */
  const recordHtml = item => {
    const number = commonNumber(item);
    let record = item.record;
    if (number >= 0) {
      const id = item.anchor.length <= 42 ? `<dt>Error ID<dd><code>${escapeText(item.anchor)}</code>` : '';
      const cause = item.cause && !record.includes('<dt>Cause') ?
        `<dt>Cause<dd><a href="${escapeText('#' + encode(item.cause.anchor))}">` +
        `<code>${escapeText(item.cause.anchor)}</code></a> (${item.cause.number})` : '';
      record = `<dl>${id}${cause}` + record.slice(4).replace(/, table row \d+<\/dl>$/, '') +
        `<dt>Time<dd>${dateOf(item.time)} ${clockOf(item.time, true)}${common[number]}</dl>`;
    }
    if (isPrinting) return record;
    return record.replace(/<\/dl>$/, '<dt><dd><button type=button class=show>On the time line</button></dl>');
  };
  const escapeText = text => text.replace(/[&<>"]/g, sign => `&#${sign.charCodeAt(0)};`);

  const entryHtml = entry => entry.date ? `<li class=date>${entry.date}</li>` :
    entry.repeats ? repeatsHtml(entry.repeats) : rowHtml(entry.item);

  const fillChunk = chunk => {
    if (chunk.isFull) return;
    chunk.isFull = true;
    chunk.element.innerHTML = entries.slice(chunk.from, chunk.to).map(entryHtml).join('');
    chunk.element.style.height = '';
    light();
  };
  const emptyChunk = chunk => {
    if (!chunk.isFull || chunk.element.contains(document.activeElement)) return;
    const height = chunk.element.offsetHeight;
    rowHeight = height / (chunk.to - chunk.from);
    chunk.element.style.height = height + 'px';
    chunk.element.textContent = '';
    chunk.isFull = false;
  };

  /* Shows the rows: all of them where they are few, else in chunks, of which those far out of sight are empty. */
  const showList = () => {
    makeEntries();
    observer.disconnect();
    list.textContent = '';
    chunks = [];
    const isShort = isPrinting || entries.length <= ROWS_AT_ONCE;
    const size = isShort ? Math.max(1, entries.length) : CHUNK;
    for (let from = 0; from < entries.length; from += size) {
      const chunk = {element: document.createElement('ul'), from, to: Math.min(from + size, entries.length)};
      chunk.element.className = 'tree';
      chunk.element.style.height = (chunk.to - from) * rowHeight + 'px';
      chunks.push(chunk);
      list.append(chunk.element);
      if (isShort || from === 0) fillChunk(chunk);
      if (!isShort) observer.observe(chunk.element);
    }
    one('output').textContent = matching.length === items.length ? `${thousands(items.length)} incidents` :
      `${thousands(matching.length)} of ${thousands(items.length)} incidents`;
  };

  /* Shows the row of an item, wherever it is hidden, and gives it the focus. */
  const rowOf = item => one(`li[data-i="${item.at}"]`, list);
  const goToRow = item => {
    let hasChanged = false;
    if (!isMatching[item.at]) {
      Object.assign(look, {q: '', node: '', process: '', product: ''});
      showFields();
      findMatching();
      drawTimeLine();
      hasChanged = true;
    }
    if (item.group >= 0 && !unfoldedGroups.has(item.group)) {
      unfoldedGroups.add(item.group);
      hasChanged = true;
    }
    for (let cause = item.depth > 0 && item.cause; cause; cause = cause.depth > 0 && cause.cause)
      if (folded.delete(cause.at)) hasChanged = true;
    if (hasChanged) showList();
    const at = entries.findIndex(entry => entry.item === item);
    const chunk = chunks.find(found => found.from <= at && at < found.to);
    if (!chunk) return;
    fillChunk(chunk);
    const row = rowOf(item);
    row.scrollIntoView({block: 'center', behavior: 'instant'});
    one('summary', row).focus({preventScroll: true});
    lightChains([item]);
  };

  const setOpen = (row, isOpen) => {
    const item = items[row.dataset.i], details = one('details', row);
    if (isOpen && !one('dl', details)) details.insertAdjacentHTML('beforeend', recordHtml(item));
    if (isOpen) opened.add(item.at);
    else opened.delete(item.at);
  };

  const toggleGroup = group => {
    if (!unfoldedGroups.delete(group)) unfoldedGroups.add(group);
    showListAround(`li[data-g="${group}"] summary`);
  };
  const toggleFold = item => {
    if (!folded.delete(item.at)) folded.add(item.at);
    showListAround(`li[data-i="${item.at}"] .fold`);
  };
  /* Shows the list anew; what is clicked stays where it is. */
  const showListAround = selector => {
    const before = one(selector, list).getBoundingClientRect().top;
    const scrolled = window.scrollY;
    const at = chunks.findIndex(chunk => one(selector, chunk.element));
    list.style.minHeight = list.offsetHeight + 'px';
    showList();
    for (let near = Math.max(0, at - 1); near <= at + 1 && near < chunks.length; ++near) fillChunk(chunks[near]);
    list.style.minHeight = '';
    const element = one(selector, list);
    if (!element) return;
    window.scrollTo({top: scrolled + element.getBoundingClientRect().top - before + window.scrollY - scrolled,
      behavior: 'instant'});
    element.focus({preventScroll: true});
  };

  const listKey = event => {
    const row = event.target.closest('li[data-i],li[data-g]');
    if (!row || event.target.tagName !== 'SUMMARY' || event.ctrlKey || event.altKey || event.metaKey) return;
    const item = row.dataset.i && items[row.dataset.i];
    const summaries = all('summary', list);
    const next = {ArrowDown: 1, ArrowUp: -1}[event.key];
    if (next) {
      const other = summaries[summaries.indexOf(event.target) + next];
      if (other) other.focus();
    } else if (item && item.effects > 0 && event.key === (folded.has(item.at) ? 'ArrowRight' : 'ArrowLeft')) {
      toggleFold(item);
      one('summary', rowOf(item)).focus({preventScroll: true});
    } else if (item && event.key === 'ArrowLeft' && item.cause && item.depth > 0) {
      goToRow(item.cause);
    } else {
      return;
    }
    event.preventDefault();
  };

  const listClick = event => {
    const row = event.target.closest('li[data-i],li[data-g]');
    if (!row) return;
    const item = row.dataset.i && items[row.dataset.i];
    const link = event.target.closest('dl a[href^="#"]');
    if (link) {
      event.preventDefault();
      goToAnchor(decodeURIComponent(link.getAttribute('href').slice(1)));
    } else if (event.target.closest('.fold')) {
      toggleFold(item);
    } else if (event.target.closest('.show') || (item && event.target.closest('summary > b'))) {
      event.preventDefault();
      goToMark(item);
    } else if (event.target.closest('summary') && row.dataset.g) {
      event.preventDefault();
      toggleGroup(Number(row.dataset.g));
    }
  };

  /* ---- The time line -------------------------------------------------------------------------------------------------- */

  let pane, axis, canvas, overview, hint; /* elements */
  let bursts = [], extent = 0; /* the whole drawing's width, in its own measure */
  let laneTops = [], height = 0;
  let names = []; /* of lanes and nodes, with their places */
  let width = 0, scale = 1, overviewWidth = 1;
  let marks = [], laneMarks = [], markOf = [];
  let laneItems = [];
  let focused = null; /* the item whose mark is the time line's tab stop */

  const parseTimeLine = () => {
    const numbers = pane.dataset.bursts.split(' ').map(Number);
    extent = numbers[0];
    for (let at = 1; at < numbers.length; at += 4)
      bursts.push({from: numbers[at], to: numbers[at + 1], x: numbers[at + 2], width: numbers[at + 3]});
    height = 0;
    for (const name of all('.lanes li')) {
      const isNode = name.classList.contains('node');
      if (!isNode) laneTops.push(height + LANE / 2);
      height += isNode ? NODE : LANE;
      names.push({html: plainHtml(name.innerHTML), y: height - (isNode ? 8 : LANE / 2 - 4)});
    }
    laneItems = laneTops.map(() => []);
    for (const item of items) {
      item.place = placeOf(item.time);
      laneItems[item.lane].push(item);
    }
    for (const lane of laneItems) lane.sort((left, right) => left.place - right.place || left.number - right.number);
  };

  const placeOf = time => {
    let at = bursts.length - 1;
    while (at > 0 && bursts[at].from > time) --at;
    const burst = bursts[at];
    const part = burst.to > burst.from ? (time - burst.from) / (burst.to - burst.from) : 0;
    return burst.x + clamp(part, 0, 1) * burst.width;
  };
  const timeAt = place => {
    let at = bursts.length - 1;
    while (at > 0 && bursts[at].x > place) --at;
    const burst = bursts[at];
    const part = burst.width > 0 ? clamp((place - burst.x) / burst.width, 0, 1) : 0;
    return burst.from + part * (burst.to - burst.from);
  };

  const hasNumbers = () => items.length <= 99;
  const halfWidth = list => list.length > 1 ? Math.max(RADIUS + 1, 5 + DIGIT * String(list.length).length) :
    hasNumbers() ? RADIUS : SMALL;
  const view = () => look.view || [0, extent];
  const xOf = place => (place - view()[0]) * scale;
  /* A mark is whole where everything is in sight, however narrow that is. */
  const inSight = (x, half) => look.view ? x : clamp(x, half + 2, width - half - 2);

  /* What would overlap becomes one mark. */
  const placeMarks = () => {
    marks = [];
    markOf = [];
    laneMarks = laneItems.map((lane, number) => {
      const found = [];
      for (const item of lane) {
        if (!isMatching[item.at]) continue;
        let mark = {lane: number, items: [item]};
        mark.half = halfWidth(mark.items);
        mark.x = inSight(xOf(item.place), mark.half);
        for (let before = found[found.length - 1]; before && mark.x - mark.half < before.x + before.half + GAP;
          before = found[found.length - 1]) {
          found.pop();
          const count = mark.items.length, countBefore = before.items.length;
          const middle = (mark.x * count + before.x * countBefore) / (count + countBefore);
          for (const other of mark.items) before.items.push(other);
          mark.items = before.items;
          mark.half = halfWidth(mark.items);
          mark.x = inSight(middle, mark.half);
        }
        found.push(mark);
      }
      for (const mark of found) {
        mark.at = marks.push(mark) - 1;
        mark.reach = Math.min(mark.half, RADIUS);
        for (const item of mark.items) markOf[item.at] = mark;
      }
      return found;
    });
  };

  const bentLine = points => {
    points = points.filter((point, at) => at === 0 || Math.hypot(point[0] - points[at - 1][0],
      point[1] - points[at - 1][1]) >= 0.5);
    const number = value => value.toFixed(1);
    let path = `M${number(points[0][0])} ${number(points[0][1])}`;
    const toward = (start, end) => {
      const length = Math.hypot(end[0] - start[0], end[1] - start[1]);
      const part = Math.min(CORNER, length / 2) / length;
      return number(start[0] + (end[0] - start[0]) * part) + ' ' + number(start[1] + (end[1] - start[1]) * part);
    };
    for (let at = 1; at + 1 < points.length; ++at)
      path += `L${toward(points[at], points[at - 1])}Q${number(points[at][0])} ${number(points[at][1])} ` +
        toward(points[at], points[at + 1]);
    const last = points[points.length - 1];
    return `${path}L${number(last[0])} ${number(last[1])}`;
  };

  /* Whether a vertical line meets no mark of the lanes between. */
  const isFree = (x, first, last) => {
    for (let lane = first; lane < last; ++lane) {
      const found = laneMarks[lane];
      let low = 0, high = found.length;
      while (low < high) {
        const middle = (low + high) >> 1;
        if (found[middle].x < x - 40) low = middle + 1;
        else high = middle;
      }
      for (; low < found.length && found[low].x < x + 40; ++low)
        if (Math.abs(found[low].x - x) < found[low].half + 3) return false;
    }
    return true;
  };
  const findPassage = (cause, effect) => {
    const first = Math.min(cause.lane, effect.lane) + 1, last = Math.max(cause.lane, effect.lane);
    const isOut = cause.x < 0 || cause.x > width; /* else the way stays in sight */
    const isWay = x => (isOut || (x > 2 && x < width - 2)) && isFree(x, first, last);
    if (isFree(cause.x, first, last)) return cause.x;
    if (isWay(effect.x)) return effect.x;
    for (let step = 8; step <= DETOUR_MAX; step += 8) {
      if (isWay(cause.x + step)) return cause.x + step;
      if (isWay(cause.x - step)) return cause.x - step;
    }
    return cause.x;
  };

  const arrowsHtml = ({cause, effects, count}, isCrowded) => {
    const first = effects[0], last = effects[effects.length - 1];
    const from = laneTops[cause.lane], to = laneTops[first.lane];
    const {colour, root} = cause.items[0].colour ? cause.items[0] : first.items[0];
    const side = first.lane > cause.lane ? 1 : -1, entry = first.lane < cause.lane ? 1 : -1;
    const track = 2.5 * (colour % 3 - 1);
    const startBus = from + side * LANE / 2 + track, bus = to + entry * LANE / 2 + track;
    const isBand = effects.length >= BAND_MIN;
    const passage = isCrowded ? cause.x : findPassage(cause, first);
    let line = '', tips = '';
    for (const mark of isBand ? [first] : effects) {
      const end = to + entry * ((isBand ? RADIUS : mark.reach) + 1);
      const x = isBand ? clamp(passage, first.x, last.x) : mark.x;
      const drop = [[passage, bus], [x, bus], [x, end + entry * TIP]];
      line += line === '' ?
        bentLine([[cause.x, from + side * cause.reach], [cause.x, startBus], [passage, startBus], ...drop]) : bentLine(drop);
      tips += `M${x.toFixed(1)} ${end}l-3.5 ${entry * TIP}h7z`;
    }
    return `<path class="arrow c${colour}" data-root=${root} d="${line}"/>` +
      `<path class="tip c${colour}" data-root=${root} d="${tips}"/>` + (isBand ?
      `<rect class="band c${colour}" data-root=${root} x="${first.x - RADIUS}" y="${bus - 2.5}" width="${last.x - first.x +
        2 * RADIUS}" height=5 rx=2.5 /><text class=count x="${last.x + RADIUS + 3}" y="${bus + 3.5}">${count}</text>` : '');
  };

  const allArrowsHtml = (firstLane, lastLane) => {
    const arrows = new Map();
    let html = '';
    for (const item of matching) {
      const mark = markOf[item.at];
      if (item.classes.includes('elsewhere') && mark.items.length === 1 && mark.x > -20 && mark.x < width + 20 &&
          mark.lane >= firstLane && mark.lane < lastLane)
        html += `<path class="arrow from" d="M${mark.x - 13} ${laneTops[mark.lane] - 16}l7 9"/>`;
      const cause = item.cause && markOf[item.cause.at];
      if (!cause || cause === mark) continue;
      const key = cause.at * laneTops.length + mark.lane;
      const arrow = arrows.get(key);
      if (arrow) {
        ++arrow.count;
        arrow.effects.add(mark);
      } else {
        arrows.set(key, {cause, effects: new Set([mark]), count: 1});
      }
    }
    let drawn = [...arrows.values()];
    for (const arrow of drawn) arrow.effects = [...arrow.effects].sort((left, right) => left.x - right.x);
    drawn = drawn.filter(({cause, effects}) => Math.min(cause.x, effects[0].x) < width &&
      Math.max(cause.x, effects[effects.length - 1].x) > 0 && Math.min(cause.lane, effects[0].lane) < lastLane &&
      Math.max(cause.lane, effects[0].lane) >= firstLane);
    if (drawn.length > ARROWS_MAX)
      drawn = drawn.sort((left, right) => right.count - left.count).slice(0, ARROWS_MAX);
    const isCrowded = drawn.length > CROWDED;
    canvas.classList.toggle('crowded', isCrowded);
    return html + drawn.map(arrow => arrowsHtml(arrow, isCrowded)).join('');
  };

  const nameOf = mark => {
    const [first] = mark.items;
    return (mark.items.length > 1 ? `${mark.items.length} incidents from ` : hasNumbers() ? first.number + ': ' : '') +
      `${clockOf(first.time, hasMilliseconds)} ${first.name}: ${first.description}`;
  };
  const markHtml = mark => {
    const [first] = mark.items, count = mark.items.length, y = laneTops[mark.lane];
    const colour = mark.items.every(item => item.colour === first.colour) ? first.colour : 0;
    const text = count > 1 ? `<text class=many x="${mark.x.toFixed(1)}" y="${y + 3.5}">${count}</text>` :
      hasNumbers() ? `<text class=number x="${mark.x.toFixed(1)}" y="${y + 3.5}">${first.number}</text>` : '';
    return `<a href="#${escapeText(encode(first.anchor))}" data-m=${mark.at} tabindex=-1 ` +
      `aria-label="${nameOf(mark)}"><rect class="mark${count > 1 ? ' bundle' : ''} c${colour}` +
      `${mark.items.some(item => item.classes.includes('asked')) ? ' asked' : ''}" x="${(mark.x - mark.half).toFixed(1)}" ` +
      `y="${y - mark.reach}" width="${2 * mark.half}" height="${2 * mark.reach}" rx="${mark.reach}"/>${text}</a>`;
  };

  const axisHtml = () => {
    let ticks = '', lines = '', date = '', freeFrom = 0, dateFreeFrom = 0, dates = '';
    const add = (time, x, step) => {
      const at = Math.max(x - 24, dateFreeFrom, 2); /* a date that would stand nearer to the next time is left out */
      if (date === '' || (dateOf(time) !== date && at <= x - 24 + TICK / 2)) {
        date = dateOf(time);
        dateFreeFrom = at + DATE;
        dates += `<text class=day x="${at}" y=14>${date}</text>`;
      }
      if (x < freeFrom || x < 0 || x > width) return;
      freeFrom = x + TICK - 20;
      const clock = clockOf(time, step < 1e6);
      lines += `<path class=grid d="M${x} 0V${height}"/>`;
      ticks += `<text class=time x="${clamp(x, step < 1e6 ? 34 : 24, width - 34)}" y=32>${step >= 60e6 ? clock.slice(0, 5) : clock}</text>`;
    };
    add(timeAt(view()[0]), -1000, 1e6); /* the date at the left edge stays in sight */
    bursts.forEach((burst, at) => {
      const x = xOf(burst.x), end = xOf(burst.x + burst.width), before = bursts[at - 1];
      if (before) {
        const pad = bursts[0].x;
        const left = xOf(before.x + before.width + pad), right = xOf(burst.x - pad);
        if (right > 0 && left < width) {
          lines += `<rect class=break x="${left}" y=0 width="${right - left}" height="${height}"/>`;
          ticks += `<rect class=break x="${left}" y=20 width="${right - left}" height=24 />` +
            (right - left < 36 ? '' : `<text class=pause x="${(left + right) / 2}" y=32>${pauseText(burst.from - before.to)}</text>`);
        }
        freeFrom = Math.max(freeFrom, right);
      }
      if (end < -60 || x > width + 60) return;
      const span = burst.to - burst.from;
      if (span <= 0) {
        add(burst.from, x, 1e6);
        return;
      }
      const least = span * TICK / (end - x) / 1000;
      const step = (STEPS.find(found => found >= least) || Math.ceil(least / 864e5) * 864e5) * 1000;
      const offset = offsetOf(burst.from);
      const start = Math.max(burst.from, burst.from + span * (-60 - x) / (end - x));
      let time = Math.ceil((start + offset) / step) * step - offset;
      if (time > burst.to) add(burst.from, x, 1e6);
      for (; time <= burst.to; time += step) {
        const place = xOf(placeOf(time));
        if (place > width + 60) break;
        add(time, place, step);
      }
    });
    return [dates + ticks, lines];
  };

  const drawTimeLine = () => {
    if (items.length === 0) return;
    overviewWidth = Math.max(60, overview.getBoundingClientRect().width); /* read before anything is written */
    width = isPrinting ? 1000 : Math.max(160, pane.clientWidth - one('.lanes').offsetWidth);
    scale = width / (view()[1] - view()[0]);
    const top = isPrinting ? 0 : pane.scrollTop - 200, bottom = isPrinting ? height : pane.scrollTop + pane.clientHeight + 200;
    const firstLane = laneTops.findIndex(y => y >= top);
    const below = laneTops.findIndex(y => y > bottom);
    const lastLane = below < 0 ? laneTops.length : below;
    placeMarks();
    const [ticks, lines] = axisHtml();
    axis.setAttribute('width', width);
    axis.setAttribute('viewBox', `0 0 ${width} ${AXIS}`);
    axis.innerHTML = ticks;
    canvas.setAttribute('width', width);
    canvas.setAttribute('height', height);
    canvas.setAttribute('viewBox', `0 0 ${width} ${height}`);
    const hadFocus = canvas.contains(document.activeElement);
    let html = lines;
    laneTops.forEach((y, lane) => {
      if (lane >= firstLane && lane < lastLane) html += `<path class=lane d="M0 ${y}H${width}"/>`;
    });
    if (isPrinting) for (const name of names) html += `<text class=name x=${NAMES} y="${name.y}">${name.html}</text>`;
    html += allArrowsHtml(firstLane, lastLane);
    for (const mark of marks)
      if (mark.x > -30 && mark.x < width + 30 && mark.lane >= firstLane && mark.lane < lastLane) html += markHtml(mark);
    canvas.innerHTML = html;
    const drawn = all('a', canvas);
    const stop = (focused && markOf[focused.at] && markElement(markOf[focused.at])) || drawn[0];
    if (stop) stop.setAttribute('tabindex', 0);
    if (hadFocus && stop) stop.focus({preventScroll: true});
    drawOverview();
    light();
  };

  /* Draws with the next frame, once for all that has changed until then. */
  let isToBeDrawn = false;
  const redraw = () => {
    if (isToBeDrawn) return;
    isToBeDrawn = true;
    requestAnimationFrame(() => {
      isToBeDrawn = false;
      drawTimeLine();
    });
  };

  const drawOverview = () => {
    const across = overviewWidth;
    const columns = new Float64Array(Math.ceil(across / 3) + 1);
    for (const item of matching) ++columns[Math.floor(item.place / extent * across / 3)];
    const most = Math.max(1, ...columns);
    let path = '';
    columns.forEach((count, at) => {
      if (count > 0) path += `M${at * 3 + 1} 26V${(24 - 20 * Math.sqrt(count / most)).toFixed(1)}`;
    });
    const [from, to] = view().map(place => place / extent * across);
    overview.setAttribute('viewBox', `0 0 ${across} 28`);
    overview.innerHTML = `<path class=bars d="${path}"/><path class=outside d="M0 0H${from}V28H0zM${to} 0H${across}V28H${to}z"/>` +
      (look.view ? `<rect class=window x="${from + 1}" y=1 width="${Math.max(4, to - from - 2)}" height=26 rx=3 />` : '');
  };

  const markElement = mark => one(`a[data-m="${mark.at}"]`, canvas);

  /* Shows the part of the time line from `from` to `to`. */
  const setView = (from, to) => {
    const span = clamp(to - from, extent / 1e6, extent);
    from = clamp(from, 0, extent - span);
    look.view = span > extent * 0.999 ? null : [from, from + span];
    drawTimeLine();
    keepLook();
  };
  const zoom = (factor, at) => {
    const [from, to] = view();
    if (at === undefined) at = focused && canvas.contains(document.activeElement) ? focused.place : (from + to) / 2;
    setView(at - (at - from) / factor, at + (to - at) / factor);
  };
  const pan = part => {
    const [from, to] = view();
    setView(from + (to - from) * part, to + (to - from) * part);
  };
  const showChain = item => {
    const chain = items.filter(other => other.root === item.root);
    const places = chain.map(other => other.place);
    const from = Math.min(...places), to = Math.max(...places);
    const pad = Math.max((to - from) * 0.15, extent / 400);
    setView(from - pad, to + pad);
    focused = item;
    showLane(item.lane);
    drawTimeLine();
  };
  const showLane = lane => {
    const top = laneTops[lane];
    if (top < pane.scrollTop + LANE) pane.scrollTop = top - LANE;
    if (top > pane.scrollTop + pane.clientHeight - 120) pane.scrollTop = top - pane.clientHeight + 120;
  };

  const focusMark = mark => {
    focused = mark.items[0];
    const old = one('a[tabindex="0"]', canvas);
    if (old) old.setAttribute('tabindex', -1);
    showLane(mark.lane);
    if (!markElement(mark)) drawTimeLine();
    const element = markElement(markOf[focused.at]);
    element.setAttribute('tabindex', 0);
    element.focus({preventScroll: true});
  };
  const goToMark = item => {
    if (!markOf[item.at]) return;
    const [from, to] = view();
    if (item.place < from || item.place > to) {
      focused = item;
      setView(item.place - (to - from) / 2, item.place + (to - from) / 2);
    }
    pane.scrollIntoView({block: 'nearest', behavior: 'instant'});
    focusMark(markOf[item.at]);
    focused = item;
  };

  const timeLineKey = event => {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const link = event.target.closest('a[data-m]');
    const mark = link && marks[link.dataset.m];
    const neighbours = mark ? laneMarks[mark.lane] : [];
    const nearest = step => {
      for (let lane = mark.lane + step; lane >= 0 && lane < laneMarks.length; lane += step) {
        const found = laneMarks[lane].filter(other => other.x >= -30 && other.x <= width + 30);
        if (found.length > 0)
          return found.reduce((best, other) => Math.abs(other.x - mark.x) < Math.abs(best.x - mark.x) ? other : best);
      }
      return null;
    };
    const move = other => {
      if (!other) return;
      const [from, to] = view(), {place} = other.items[0];
      focused = other.items[0];
      if (other.x < 0 || other.x > width) setView(place - (to - from) / 2, place + (to - from) / 2);
      focusMark(markOf[focused.at]);
    };
    const keys = {
      '+': () => zoom(2), '=': () => zoom(2), '-': () => zoom(0.5), 0: () => setView(0, extent),
      ArrowLeft: () => event.shiftKey ? pan(-0.25) : mark && move(neighbours[neighbours.indexOf(mark) - 1]),
      ArrowRight: () => event.shiftKey ? pan(0.25) : mark && move(neighbours[neighbours.indexOf(mark) + 1]),
      ArrowUp: () => mark && move(nearest(-1)), ArrowDown: () => mark && move(nearest(1)),
      Home: () => mark && move(neighbours[0]), End: () => mark && move(neighbours[neighbours.length - 1]),
    };
    if (!keys[event.key]) return;
    event.preventDefault();
    keys[event.key]();
  };

  /* ---- Lighting up a chain -------------------------------------------------------------------------------------------- */

  let litRoots = new Set();
  let wasLit = false;
  const light = () => {
    const isLit = litRoots.size > 0;
    if (!isLit && !wasLit) return;
    wasLit = isLit;
    canvas.classList.toggle('lit', isLit);
    for (const element of canvas.children) {
      const mark = element.dataset.m && marks[element.dataset.m];
      const isOn = isLit && (mark ? mark.items.some(item => litRoots.has(item.root)) :
        element.dataset.root !== undefined && litRoots.has(Number(element.dataset.root)));
      element.classList.toggle('on', isOn);
    }
    for (const row of all('li[data-i]', list)) row.classList.toggle('lit', isLit && litRoots.has(items[row.dataset.i].root));
  };
  const lightChains = lit => {
    const roots = new Set(lit.filter(item => item.colour > 0).map(item => item.root));
    if (roots.size === litRoots.size && [...roots].every(root => litRoots.has(root))) return;
    litRoots = roots;
    light();
  };

  const showHint = link => {
    const mark = marks[link.dataset.m], box = link.getBoundingClientRect();
    const shown = mark.items.slice(0, 4).map(item => `<p><time>${dateOf(item.time)} ${clockOf(item.time, true)}</time> ` +
      `<b>${item.name}</b><br>${item.description}</p>`).join('');
    const more = mark.items.length - 4;
    hint.innerHTML = shown + (more > 0 ? `<p>and ${more} more</p>` : '');
    hint.hidden = false;
    const isLow = box.bottom + hint.offsetHeight + 16 > window.innerHeight;
    hint.style.left = clamp(box.left - 20, 8, Math.max(8, document.documentElement.clientWidth - hint.offsetWidth - 8)) + 'px';
    hint.style.top = (isLow ? box.top - hint.offsetHeight - 8 : box.bottom + 8) + 'px';
    lightChains(mark.items);
  };
  const hideHint = () => {
    hint.hidden = true;
    lightChains([]);
  };

  /* ---- Asking, and keeping the look in the address -------------------------------------------------------------------- */

  let form, keeping = 0;
  const FIELDS = ['q', 'node', 'process', 'product'];
  const field = name => form.elements.namedItem(name);
  const showFields = () => {
    for (const name of FIELDS) if (field(name)) field(name).value = look[name];
  };
  const optionText = name => field(name).selectedOptions[0].textContent;
  const optionValue = (name, text) => {
    const found = field(name) && [...field(name).options].find(option => option.value !== '' && option.textContent === text);
    return found ? found.value : '';
  };

  const lookText = () => {
    const parts = [];
    const add = (name, text) => text && parts.push(`${name}=${encode(text)}`);
    add('q', look.q);
    for (const name of FIELDS.slice(1)) if (look[name] !== '') add(name, optionText(name));
    if (look.view) add('view', look.view.map(place => place.toFixed(3)).join('-'));
    if (parts.length === 0) return look.id && '#' + encode(look.id);
    add('id', look.id);
    return '#' + parts.join('&');
  };
  const keepLook = () => {
    clearTimeout(keeping);
    keeping = setTimeout(() => {
      if (lookText() !== location.hash) history.replaceState(null, '', lookText() || location.pathname + location.search);
    }, 150);
  };
  const decode = text => {
    try {
      return decodeURIComponent(text);
    } catch {
      return text;
    }
  };
  const readLook = () => {
    const hash = location.hash.slice(1);
    Object.assign(look, {q: '', node: '', process: '', product: '', view: null, id: ''});
    if (/^(q|node|process|product|view|id)=/.test(hash)) {
      for (const part of hash.split('&')) {
        const [name, text] = [part.slice(0, part.indexOf('=')), decode(part.slice(part.indexOf('=') + 1))];
        if (name === 'q' || name === 'id') look[name] = text;
        else if (FIELDS.includes(name)) look[name] = optionValue(name, text);
        else if (name === 'view') {
          const [from, to] = text.split('-').map(Number);
          if (from >= 0 && to > from && to <= extent + 1) look.view = [from, to];
        }
      }
    } else {
      look.id = decode(hash);
    }
  };
  const show = () => {
    showFields();
    findMatching();
    showList();
    drawTimeLine();
    if (byAnchor.has(look.id)) goToRow(byAnchor.get(look.id));
  };
  const goToAnchor = anchor => {
    const item = byAnchor.get(anchor);
    if (!item) return;
    look.id = anchor;
    keepLook();
    goToRow(item);
  };
  const ask = () => {
    for (const name of FIELDS) look[name] = field(name) ? field(name).value : '';
    look.id = '';
    findMatching();
    showList();
    redraw(); /* typing does not wait for it */
    keepLook();
  };

  /* ---- Beginning ------------------------------------------------------------------------------------------------------ */

  const svgElement = (name, label) => {
    const element = document.createElementNS('http://www.w3.org/2000/svg', 'svg');
    element.setAttribute('class', name);
    if (label) {
      element.setAttribute('role', 'group');
      element.setAttribute('aria-label', label);
    } else {
      element.setAttribute('aria-hidden', 'true');
    }
    return element;
  };

  const buildTimeLine = () => {
    pane = one('.pane');
    one('noscript', pane).remove();
    const drawing = document.createElement('div');
    drawing.className = 'drawing live';
    axis = svgElement('axis');
    axis.setAttribute('height', AXIS);
    canvas = svgElement('canvas', 'Incidents in order of time');
    drawing.append(axis, canvas);
    pane.append(drawing);
    overview = svgElement('overview');
    overview.setAttribute('height', 28);
    one('.title h2').after(overview);
    hint = document.createElement('div');
    hint.className = 'box';
    hint.hidden = true;
    document.body.append(hint);
    one('.zoom').hidden = false;
  };

  /* Calls `moved(part)` while the pointer is dragged, with its place in the element from 0 to 1. */
  const onDrag = (element, moved) => {
    let last = null;
    const partOf = event => (event.clientX - element.getBoundingClientRect().left) / element.getBoundingClientRect().width;
    element.addEventListener('pointerdown', event => {
      if (event.button !== 0 || event.target.closest('a')) return;
      last = partOf(event);
      element.setPointerCapture(event.pointerId);
      moved(last, null);
    });
    element.addEventListener('pointermove', event => {
      if (last === null) return;
      moved(partOf(event), last);
      last = partOf(event);
    });
    for (const name of ['pointerup', 'pointercancel']) element.addEventListener(name, () => last = null);
  };

  const listenTimeLine = () => {
    one('.zoom').addEventListener('click', event => {
      const actions = {in: () => zoom(2), out: () => zoom(0.5), left: () => pan(-0.25), right: () => pan(0.25),
        all: () => setView(0, extent)};
      const action = actions[event.target.dataset.do];
      if (action) action();
    });
    pane.addEventListener('keydown', timeLineKey);
    pane.addEventListener('wheel', event => {
      const sideways = event.shiftKey ? event.deltaY || event.deltaX : event.deltaX;
      const at = view()[0] + (event.clientX - canvas.getBoundingClientRect().left) / scale;
      if (event.ctrlKey || event.metaKey) zoom(Math.exp(-clamp(event.deltaY, -100, 100) / 200), at);
      else if (sideways !== 0) pan(clamp(sideways, -200, 200) / 800);
      else return;
      event.preventDefault();
    }, {passive: false});
    overview.addEventListener('wheel', event => {
      zoom(Math.exp(-clamp(event.deltaY, -100, 100) / 200), (event.clientX - overview.getBoundingClientRect().left) /
        overviewWidth * extent);
      event.preventDefault();
    }, {passive: false});
    onDrag(overview, part => {
      const [from, to] = view();
      setView(part * extent - (to - from) / 2, part * extent + (to - from) / 2);
    });
    onDrag(canvas, (part, last) => {
      if (last !== null && look.view) pan(last - part);
    });
    const ofMark = event => event.target.closest && event.target.closest('a[data-m]');
    for (const name of ['pointerover', 'focusin']) canvas.addEventListener(name, event => {
      if (ofMark(event)) showHint(ofMark(event));
    });
    for (const name of ['pointerout', 'focusout']) canvas.addEventListener(name, event => {
      if (ofMark(event) && canvas.isConnected) hideHint();
    });
    canvas.addEventListener('focusin', event => {
      if (ofMark(event)) [focused] = marks[ofMark(event).dataset.m].items;
    });
    canvas.addEventListener('click', event => {
      if (!ofMark(event) || event.ctrlKey || event.metaKey || event.shiftKey) return;
      event.preventDefault();
      const [first] = marks[ofMark(event).dataset.m].items;
      hideHint();
      goToAnchor(first.anchor);
    });
    if (height > 900) pane.addEventListener('scroll', redraw);
    new ResizeObserver(() => {
      if (width !== Math.max(160, pane.clientWidth - one('.lanes').offsetWidth)) redraw();
    }).observe(pane);
  };

  const listenList = () => {
    list.addEventListener('click', listClick);
    list.addEventListener('keydown', listKey);
    list.addEventListener('toggle', event => {
      const row = event.target.closest('li[data-i]');
      if (row && !isPrinting) setOpen(row, event.target.open);
    }, true);
    list.addEventListener('pointerover', event => {
      const row = event.target.closest('li[data-i]');
      lightChains(row ? [items[row.dataset.i]] : []);
    });
    list.addEventListener('pointerleave', () => lightChains([]));
    list.addEventListener('focusin', event => {
      const row = event.target.closest('li[data-i]');
      if (row) lightChains([items[row.dataset.i]]);
    });
    form.addEventListener('input', ask);
    form.addEventListener('submit', event => event.preventDefault());
    window.addEventListener('hashchange', () => {
      readLook();
      show();
    });
    window.addEventListener('beforeprint', () => {
      isPrinting = true;
      showList();
      drawTimeLine();
    });
    window.addEventListener('afterprint', () => {
      isPrinting = false;
      showList();
      drawTimeLine();
    });
  };

  const showSpan = () => {
    const span = one('.span');
    const [first, last] = all('time', span).map(time => parseTime(time.dateTime));
    const utc = time => new Date(time / 1000).toISOString().replace(/^(.*)T(.*)\..*/, '$1 $2');
    const isOneDay = dateOf(first) === dateOf(last);
    const local = `${dateOf(first)} ${clockOf(first)} to ${isOneDay ? '' : dateOf(last) + ' '}${clockOf(last)} ${zoneOf(first)}`;
    span.textContent = local;
    if (offsetOf(first) === 0 && offsetOf(last) === 0) return;
    const beside = document.createElement('small');
    beside.textContent = ` (UTC ${utc(first)} to ${utc(last).slice(utc(first).slice(0, 10) === utc(last).slice(0, 10) ? 11 : 0)})`;
    span.append(beside);
  };

  const start = () => {
    const rows = one('noscript.rows');
    form = one('.ask');
    list = document.createElement('div');
    parseRows(rows.textContent);
    observer = new IntersectionObserver(seen => {
      for (const {target, isIntersecting} of seen) {
        const chunk = chunks.find(found => found.element === target);
        if (chunk && isIntersecting) fillChunk(chunk);
        else if (chunk) emptyChunk(chunk);
      }
    }, {rootMargin: '1200px'});
    buildTimeLine();
    parseTimeLine();
    rows.replaceWith(list);
    form.hidden = false;
    listenList();
    listenTimeLine();
    showSpan();
    readLook();
    const asked = items.find(item => item.classes.includes('asked'));
    findMatching();
    if (asked && location.hash === '') showChain(asked);
    show();
    const prepare = from => { /* what asking needs, a piece at a time */
      items.slice(from, from + 500).forEach(searchText);
      if (from + 500 < items.length) setTimeout(prepare, 0, from + 500);
    };
    setTimeout(prepare, 100, 0);
  };

  /* Whatever goes wrong, what is recorded can be read. */
  const texts = all('noscript').map(element => [element, element.textContent]);
  try {
    start();
  } catch (error) {
    console.error(error);
    for (const [element, text] of texts) {
      const shown = document.createElement('div');
      shown.innerHTML = text;
      (element.isConnected ? element : list && list.isConnected && element.className === 'rows' ? list :
        one('.drawing') || element).replaceWith(shown);
    }
  }
})();
