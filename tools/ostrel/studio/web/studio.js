// ostrel studio: the page. It talks to the studio only through the JSON
// interface under /api/ (see docs/studio.md). The boxes a person marks are the
// picture's labels: every change is sent to the studio, which keeps them in
// label files next to the pictures, so a reload or a restart loses nothing.
'use strict';

(() => {
  const SVG = 'http://www.w3.org/2000/svg';
  const DEFAULT_SENSITIVITY = 80;
  const CLICK_SLOP = 4;        // screen pixels a click may move and stay a click
  const MIN_BOX = 8;           // screen pixels: the smallest box that can be drawn
  const PROGRESS_POLL_MS = 40; // how often training progress is asked for while it runs
  const CAPTION_PX = 12;       // caption font size on screen
  // A caption is drawn only on a box at least this large on screen; smaller
  // boxes show theirs when the pointer rests on them.
  const CAPTION_MIN_BOX_PX = { w: 26, h: 14 };

  const $ = (id) => document.getElementById(id);
  const ui = {
    modelState: $('model-state'), version: $('studio-version'), saveState: $('save-state'), pictureList: $('picture-list'),
    addPictures: $('add-pictures'), pictureFiles: $('picture-files'), train: $('train'), accept: $('accept'),
    undo: $('undo'), redo: $('redo'), clearBoxes: $('clear-boxes'), pictureName: $('picture-name'), hint: $('hint'),
    stage: $('stage'), canvas: $('canvas'), picture: $('picture'), view: $('view'), overlay: $('overlay'),
    detections: $('detections'), marks: $('marks'), captions: $('captions'), rubberBand: $('rubber-band'),
    foundCount: $('found-count'), sensitivity: $('sensitivity'), sensitivityValue: $('sensitivity-value'),
    threshold: $('threshold'), steps: $('training-steps'), trainingTime: $('training-time'),
    detectionTime: $('detection-time'), samples: $('samples'), sampleCount: $('sample-count'),
    saveModel: $('save-model'), openModel: $('open-model'), modelFile: $('model-file'), modelButtons: $('model-buttons'), modelNote: $('model-note'),
    startOver: $('start-over'), notice: $('notice'), dropOverlay: $('drop-overlay'), classes: $('classes'),
    addClass: $('add-class'), newClass: $('new-class'), acceptAll: $('accept-all'), zoomIn: $('zoom-in'),
    zoomOut: $('zoom-out'), zoomFit: $('zoom-fit'), zoomValue: $('zoom-value'), showScores: $('show-scores'),
    showNames: $('show-names'), exportFormat: $('export-format'), exportLabels: $('export-labels'),
    exportDetections: $('export-detections'), labelsWhere: $('labels-where'), help: $('help'),
    helpButton: $('help-button'), shortcutTable: $('shortcut-table'), profileChoice: $('profile-choice'),
    profileDialog: $('profile-dialog'), profileDialogTitle: $('profile-dialog-title'),
    profileDialogText: $('profile-dialog-text'), profileDialogNote: $('profile-dialog-note'),
    profileRetrain: $('profile-retrain'), profileForget: $('profile-forget'), profileCancel: $('profile-cancel'),
  };

  // Everything the page knows. A label is {class, x, y, w, h} in picture pixels.
  const state = {
    pictures: [],          // {name, width, height, uploaded, taught, labels}
    current: null,         // name of the picture shown
    labels: new Map(),     // picture name -> its labels
    history: new Map(),    // picture name -> {undo: [...], redo: [...]} of earlier label lists
    classes: [],           // {name, color, boxes, trained}
    currentClass: null,    // the class new boxes get
    sizes: new Map(),      // class -> {fw, fh}: its box size as fractions of the picture's width and height
    selected: -1,          // index of the selected label
    status: null,          // the last /api/status reply
    trained: false,
    training: false,
    busy: false,           // accepting found boxes
    detections: new Map(), // picture name -> last /api/detect reply
    detectSeq: 0,          // makes a late reply for an old picture or value harmless
    sliderBusy: false,
    sliderPicture: null,  // the picture the slider's detections run on
    countsInFlight: null, // the strip's detection request under way
    detectInFlight: null, // the shown picture's detection request under way
    sliderPending: null,   // {sensitivity, t0} waiting for the request in flight
    countsSeq: 0,
    saves: new Map(),      // picture name -> {inFlight, again, error}
    hover: null,           // {x, y} picture point under the pointer
    bitmaps: new Map(),    // picture name -> decoded picture for the canvas
  };

  // Figures a person feels, kept for the browser tests and shown where they matter.
  const metrics = window.studioMetrics = {
    trainClickToDrawnMs: null, sliderToDrawnMs: [], lastDetectionMs: null, lastTrainingMs: null,
    zoomToDrawnMs: [], zoomToPaintedMs: [], acceptAllMs: null,
  };

  // ---------------------------------------------------------------- helpers
  // Every request that changes something carries the session's token, which
  // the studio gives to its own page only: without it the request is
  // refused, so no other web page can make the browser send one.
  let sessionToken = null;
  async function tokenHeader() {
    if (sessionToken === null) {
      const response = await fetch('/api/session');
      if (!response.ok) throw new Error(`the studio answered ${response.status}`);
      sessionToken = (await response.json()).token;
    }
    return { 'X-Ostrel-Token': sessionToken };
  }

  async function api(method, path, body, contentType) {
    const init = { method, headers: method === 'GET' ? {} : await tokenHeader() };
    if (body !== undefined) {
      init.body = body;
      init.headers['Content-Type'] = contentType || 'application/json';
    }
    const response = await fetch(path, init);
    const type = response.headers.get('Content-Type') || '';
    const data = type.startsWith('application/json') ? await response.json() : await response.blob();
    if (!response.ok) {
      const message = data && data.error ? data.error : `the studio answered ${response.status}`;
      const error = new Error(message);
      error.status = response.status;
      throw error;
    }
    return data;
  }
  const sendJson = (method, path, value) => api(method, path, JSON.stringify(value));
  const postJson = (path, value) => sendJson('POST', path, value);

  let noticeTimer = null;
  function notify(text, isError) {
    ui.notice.textContent = text;
    ui.notice.className = isError ? 'notice error' : 'notice';
    ui.notice.hidden = false;
    clearTimeout(noticeTimer);
    noticeTimer = setTimeout(() => { ui.notice.hidden = true; }, isError ? 9000 : 4000);
  }

  function svg(tag, attributes, parent) {
    const element = document.createElementNS(SVG, tag);
    for (const [key, value] of Object.entries(attributes)) {
      // Styles go through the element's style object: the page's security
      // policy refuses style attributes.
      if (key === 'style') {
        for (const rule of String(value).split(';')) {
          const at = rule.indexOf(':');
          if (at > 0) element.style.setProperty(rule.slice(0, at).trim(), rule.slice(at + 1).trim());
        }
      } else {
        element.setAttribute(key, value);
      }
    }
    if (parent) parent.appendChild(element);
    return element;
  }

  const picture = (name) => state.pictures.find((p) => p.name === name);
  const labelsOf = (name) => state.labels.get(name) || [];
  const classOf = (name) => state.classes.find((c) => c.name === name);
  const colorOf = (name) => (classOf(name) || { color: '#64748b' }).color;
  const pictureUrl = (name) => '/api/pictures/' + encodeURIComponent(name);
  const boxOf = (l) => [l.x, l.y, l.w, l.h];
  const nextFrame = () => new Promise((resolve) => requestAnimationFrame(() => resolve()));

  // The confidence (in %) a box needs at a sensitivity, from the studio's
  // status (the library's table); null until the status has come.
  function confidenceNeeded(sensitivity) {
    const table = state.status && state.status.confidence_by_sensitivity;
    return table && table[sensitivity] !== undefined ? table[sensitivity] : null;
  }

  // ------------------------------------------------------------- shortcuts
  // The one list of keys: the handler and the help table both read it.
  const SHORTCUTS = [
    ['Drag', 'draw a box around an object (the first box of a class sets its size)'],
    ['Click', 'mark another object of the class with a box of its size'],
    ['Drag a box', 'move it; its corner resizes every box of its class on the picture'],
    ['Wheel, pinch', 'zoom around the pointer'],
    ['Space + drag, middle button drag', 'move the picture'],
    ['+ / -', 'zoom in / out'],
    ['0', 'fit the picture / show it 1:1'],
    ['1 - 9', 'choose the class of new boxes (the selected box takes it too)'],
    ['← → , PageUp PageDown', 'previous / next picture'],
    ['Home / End', 'first / last picture'],
    ['T', 'train on this picture'],
    ['A', 'accept the boxes found on this picture as labels'],
    ['Ctrl+Z', 'undo'],
    ['Ctrl+Shift+Z, Ctrl+Y', 'redo'],
    ['Delete, Backspace', 'remove the selected box'],
    ['Esc', 'unselect; close this list'],
    ['S', 'show or hide scores'],
    ['N', 'show or hide class names'],
    ['?', 'show this list'],
  ];

  function renderShortcuts() {
    ui.shortcutTable.replaceChildren();
    for (const [keys, what] of SHORTCUTS) {
      const tr = document.createElement('tr');
      const th = document.createElement('th');
      th.textContent = keys;
      const td = document.createElement('td');
      td.textContent = what;
      tr.append(th, td);
      ui.shortcutTable.appendChild(tr);
    }
  }
  function toggleHelp(show) {
    ui.help.hidden = show === undefined ? !ui.help.hidden : !show;
  }

  // ---------------------------------------------------------------- classes
  async function loadClasses() {
    const reply = await api('GET', '/api/classes');
    state.classes = reply.classes;
    if (!classOf(state.currentClass)) state.currentClass = state.classes.length ? state.classes[0].name : null;
    renderClasses();
  }

  function renderClasses() {
    ui.classes.replaceChildren();
    state.classes.forEach((c, i) => {
      const li = document.createElement('li');
      li.className = c.name === state.currentClass ? 'class selected' : 'class';
      li.dataset.name = c.name;
      const key = document.createElement('span');
      key.className = 'class-key';
      key.textContent = i < 9 ? String(i + 1) : '';
      const color = document.createElement('input');
      color.type = 'color';
      color.value = c.color;
      color.title = 'Colour of ' + c.name;
      color.className = 'class-color';
      color.addEventListener('change', () => updateClass(c.name, { color: color.value }));
      const name = document.createElement('button');
      name.type = 'button';
      name.className = 'class-name';
      name.textContent = c.name;
      name.title = 'Choose for new boxes; double-click to rename';
      name.addEventListener('click', () => chooseClass(c.name));
      name.addEventListener('dblclick', () => renameClass(c.name));
      const count = document.createElement('span');
      count.className = 'class-count';
      count.textContent = String(c.boxes) + (c.trained ? ' ✓' : '');
      count.title = `${c.boxes} boxes` + (c.trained ? '; the detector knows this class' : '; not trained yet');
      const rename = document.createElement('button');
      rename.type = 'button';
      rename.className = 'small quiet class-rename';
      rename.title = 'Rename ' + c.name;
      rename.setAttribute('aria-label', 'Rename ' + c.name);
      rename.textContent = '✎';
      rename.addEventListener('click', () => renameClass(c.name));
      li.append(key, color, name, count, rename);
      ui.classes.appendChild(li);
    });
  }

  function chooseClass(name) {
    if (!classOf(name)) return;
    state.currentClass = name;
    // The selected box takes the class chosen.
    const boxes = labelsOf(state.current);
    if (state.selected >= 0 && boxes[state.selected] && boxes[state.selected].class !== name) {
      change(state.current, (list) => { list[state.selected].class = name; });
    }
    renderClasses();
    renderMarks();
  }

  async function addClass(name) {
    name = name.trim();
    if (!name) return;
    try {
      const reply = await postJson('/api/classes', { name });
      state.classes = reply.classes;
      state.currentClass = name;
      renderClasses();
      refreshStatus();
    } catch (error) { notify(error.message, true); }
  }

  async function updateClass(name, change) {
    try {
      const reply = await sendJson('PUT', '/api/classes/' + encodeURIComponent(name), change);
      state.classes = reply.classes;
      if (change.name !== undefined) {
        for (const list of state.labels.values()) for (const l of list) if (l.class === name) l.class = change.name;
        for (const reply of state.detections.values()) {
          if (reply.box_classes) reply.box_classes = reply.box_classes.map((c) => (c === name ? change.name : c));
        }
        if (state.sizes.has(name)) { state.sizes.set(change.name, state.sizes.get(name)); state.sizes.delete(name); }
        if (state.currentClass === name) state.currentClass = change.name;
      }
      renderClasses();
      renderMarks();
      renderDetections();
      refreshStatus();
    } catch (error) { notify(error.message, true); }
  }

  function renameClass(name) {
    const to = window.prompt(`Rename the class "${name}" (every label file that uses it is rewritten):`, name);
    if (to !== null && to.trim() && to.trim() !== name) updateClass(name, { name: to.trim() });
  }

  // ------------------------------------------------------------- box size
  // Each class has one box size (the detector learns one window a class):
  // its first box's, or the middle size of the boxes it already has.
  function sizeFor(p, cls) {
    if (!state.sizes.has(cls)) {
      const own = [];
      for (const q of state.pictures) {
        for (const l of labelsOf(q.name)) if (l.class === cls) own.push([l.w / q.width, l.h / q.height]);
      }
      if (!own.length) return null;
      const mid = (values) => values.sort((a, b) => a - b)[(values.length - 1) >> 1];
      state.sizes.set(cls, { fw: mid(own.map((s) => s[0])), fh: mid(own.map((s) => s[1])) });
    }
    const s = state.sizes.get(cls);
    return { w: Math.max(1, Math.round(s.fw * p.width)), h: Math.max(1, Math.round(s.fh * p.height)) };
  }
  function setSizeFrom(p, cls, w, h) { state.sizes.set(cls, { fw: w / p.width, fh: h / p.height }); }

  function clampBox(p, x, y, w, h) {
    w = Math.min(Math.max(1, Math.round(w)), p.width);
    h = Math.min(Math.max(1, Math.round(h)), p.height);
    x = Math.min(Math.max(0, Math.round(x)), p.width - w);
    y = Math.min(Math.max(0, Math.round(y)), p.height - h);
    return [x, y, w, h];
  }
  function centredBox(p, cx, cy, size) { return clampBox(p, cx - size.w / 2, cy - size.h / 2, size.w, size.h); }
  const label = (cls, [x, y, w, h]) => ({ class: cls, x, y, w, h });

  // ----------------------------------------------------- changes and saving
  const copyLabels = (list) => list.map((l) => ({ ...l }));
  function historyOf(name) {
    if (!state.history.has(name)) state.history.set(name, { undo: [], redo: [] });
    return state.history.get(name);
  }
  // Every change of a picture's labels goes through here: it can be undone,
  // and it is saved.
  function change(name, edit, before) {
    const h = historyOf(name);
    h.undo.push(before || copyLabels(labelsOf(name)));
    if (h.undo.length > 200) h.undo.shift();
    h.redo = [];
    const list = copyLabels(labelsOf(name));
    edit(list);
    state.labels.set(name, list);
    save(name);
    afterLabelsChanged(name);
  }
  function undo() { travel('undo', 'redo'); }
  function redo() { travel('redo', 'undo'); }
  function travel(from, to) {
    const name = state.current;
    const h = historyOf(name);
    if (!h[from].length) return;
    h[to].push(copyLabels(labelsOf(name)));
    state.labels.set(name, h[from].pop());
    state.selected = -1;
    save(name);
    afterLabelsChanged(name);
  }
  function afterLabelsChanged(name) {
    if (name === state.current) renderMarks();
    updateStripInfo();
    countClassBoxes();
  }
  function countClassBoxes() {
    for (const c of state.classes) c.boxes = 0;
    for (const list of state.labels.values()) for (const l of list) { const c = classOf(l.class); if (c) c.boxes += 1; }
    renderClasses();
  }

  // Saves a picture's labels; one request at a time per picture, the newest
  // labels last.
  function save(name) {
    const s = state.saves.get(name) || { inFlight: null, again: false, error: null };
    state.saves.set(name, s);
    if (s.inFlight) { s.again = true; showSaveState(); return s.inFlight; }
    s.again = false;
    const boxes = labelsOf(name).map((l) => ({ class: l.class, x: l.x, y: l.y, w: l.w, h: l.h }));
    s.inFlight = sendJson('PUT', '/api/labels/' + encodeURIComponent(name), { boxes })
      .then((reply) => {
        s.error = null;
        const p = picture(name);
        if (p) p.labelFile = reply.file;
        if (reply.classes) { state.classes = reply.classes; countClassBoxes(); }
      })
      .catch((error) => { s.error = error.message; notify(`Labels of ${name} not saved: ${error.message}`, true); })
      .finally(() => {
        s.inFlight = null;
        if (s.again) save(name);
        showSaveState();
      });
    showSaveState();
    return s.inFlight;
  }
  async function flushSaves(name) {
    for (let i = 0; i < 10; i++) {
      const s = state.saves.get(name);
      if (!s || !s.inFlight) return !(s && s.error);
      await s.inFlight;
    }
    return true;
  }
  function unsaved() {
    let pending = 0;
    let failed = 0;
    for (const s of state.saves.values()) { if (s.inFlight || s.again) pending += 1; if (s.error) failed += 1; }
    return { pending, failed };
  }
  function showSaveState() {
    const { pending, failed } = unsaved();
    const where = state.status && state.status.labels ? state.status.labels : null;
    let text;
    let kind;
    if (failed) { text = failed === 1 ? 'Labels of 1 picture not saved' : `Labels of ${failed} pictures not saved`; kind = 'failed'; }
    else if (pending) { text = 'Saving labels…'; kind = 'saving'; }
    else { text = where && !where.kept ? 'Labels kept for this session' : 'Labels saved'; kind = 'saved'; }
    if (where) text += ` · ${where.format_name}`;
    ui.saveState.textContent = text;
    ui.saveState.dataset.state = kind;
    ui.saveState.title = where ? where.description : '';
  }

  // ------------------------------------------------------------- drawing
  function onViewChange(viewer) {
    ui.zoomValue.textContent = `${Math.round(viewer.scale * 100)}%`;
    ui.zoomFit.textContent = viewer.fitted ? '1:1' : 'Fit';
    renderMarks();
    renderDetections();
  }

  function renderMarks() {
    const p = picture(state.current);
    ui.marks.replaceChildren();
    if (!p) { renderCaptions(); return; }
    const s = viewer.scale;
    const boxes = labelsOf(p.name);
    boxes.forEach((l, i) => {
      const selected = i === state.selected;
      const color = colorOf(l.class);
      svg('rect', { class: selected ? 'mark selected' : 'mark', x: l.x, y: l.y, width: l.w, height: l.h,
        'data-index': i, 'data-class': l.class, style: `stroke:${color};fill:${color}` }, ui.marks);
      if (selected) {
        const r = 6 / s;
        svg('rect', { class: 'handle', x: l.x + l.w - r, y: l.y + l.h - r, width: 2 * r, height: 2 * r,
          'data-handle': i }, ui.marks);
        const del = svg('g', { class: 'delete-button', 'data-delete': i }, ui.marks);
        svg('circle', { cx: l.x + l.w, cy: l.y, r: 9 / s, 'data-delete': i }, del);
        const k = 4 / s;
        svg('path', { d: `M${l.x + l.w - k},${l.y - k}L${l.x + l.w + k},${l.y + k}M${l.x + l.w + k},${l.y - k}L${l.x + l.w - k},${l.y + k}` }, del);
      }
    });
    renderCaptions();
    updateControls();
  }

  function detectionKind(b) {
    // The library also returns the marked boxes of its training picture
    // that nothing detected: label 1 with the score they were marked with, 0.
    return b.label !== 1 ? 'weak' : (b.score <= 0 ? 'missed' : 'found');
  }

  function renderDetections() {
    const p = picture(state.current);
    ui.detections.replaceChildren();
    // A reply of another sensitivity (the strip's counts, made while the
    // slider stood elsewhere) is not drawn: the picture's own one follows.
    // While the slider's detections run on this picture, its last reply
    // stays until the next one comes; on another picture (the person moved
    // on while they ran) it is not drawn either.
    let reply = p && state.detections.get(p.name);
    const following = state.sliderBusy && state.sliderPicture === (p && p.name);
    if (reply && reply.sensitivity !== Number(ui.sensitivity.value) && !following) reply = null;
    if (!reply || !state.trained) {
      ui.foundCount.textContent = '';
      ui.canvas.dataset.found = '';
      renderCaptions();
      return;
    }
    let found = 0;
    // Weak boxes first, so that the detections are drawn over them.
    const order = reply.boxes.map((b, i) => i);
    order.sort((a, b) => (reply.boxes[a].label === 1) - (reply.boxes[b].label === 1));
    for (const i of order) {
      const b = reply.boxes[i];
      const cls = reply.box_classes ? reply.box_classes[i] : (state.classes[0] || {}).name;
      const kind = detectionKind(b);
      if (kind === 'found') found += 1;
      const group = svg('g', { class: 'det-group', 'data-kind': kind, 'data-class': cls || '',
        'data-score': b.score.toFixed(2) }, ui.detections);
      svg('rect', { class: kind === 'found' ? 'det' : 'det ' + kind, x: b.x, y: b.y, width: b.w, height: b.h,
        style: kind === 'found' ? `stroke:${colorOf(cls)}` : '' }, group);
      const title = svg('title', {}, group);
      title.textContent = `${cls || ''} ${b.score.toFixed(2)} ${b.color_main_name}` +
        (b.color_second_name !== 'none' ? `/${b.color_second_name}` : '') + (kind === 'weak' ? ' (below the threshold)' : '');
    }
    ui.foundCount.textContent = found === 1 ? '1 found' : `${found} found`;
    ui.canvas.dataset.found = String(found);
    ui.detectionTime.textContent = `${reply.ms.toFixed(1)} ms`;
    renderCaptions();
  }

  // Captions (class and score) sit above their box, outside it, so that they
  // hide no object. A caption is left out when its box is too small on screen
  // or when it would cover another caption; the box under the pointer always
  // shows its own.
  function renderCaptions() {
    ui.captions.replaceChildren();
    for (const g of ui.detections.querySelectorAll('.det-caption-bg, .det-caption')) g.remove();
    const p = picture(state.current);
    if (!p) return;
    const s = viewer.scale;
    const font = CAPTION_PX / s;
    const placed = [];
    const showScores = ui.showScores.checked;
    const showNames = ui.showNames.checked;
    const several = new Set(labelsOf(p.name).map((l) => l.class)).size > 1 || state.classes.length > 1;
    const items = [];
    const reply = state.trained ? state.detections.get(p.name) : null;
    if (reply) {
      const groups = ui.detections.querySelectorAll('.det-group');
      for (const group of groups) {
        const kind = group.dataset.kind;
        if (kind === 'weak') continue;
        const r = group.querySelector('rect');
        const b = { x: Number(r.getAttribute('x')), y: Number(r.getAttribute('y')), w: Number(r.getAttribute('width')), h: Number(r.getAttribute('height')) };
        let text;
        if (kind === 'missed') text = 'not found';
        else {
          const parts = [];
          if (showNames && group.dataset.class) parts.push(group.dataset.class);
          if (showScores) parts.push(group.dataset.score);
          text = parts.join(' ');
        }
        if (text) {
          items.push({ box: b, text, kind, color: kind === 'found' ? colorOf(group.dataset.class) : null, parent: group,
            score: Number(group.dataset.score) });
        }
      }
    }
    // The surest find of each class is named first, then the surest of the
    // rest: where captions would meet, theirs stay, and no class goes unnamed.
    items.sort((a, b) => b.score - a.score);
    const seen = new Set();
    const firsts = items.filter((item) => !seen.has(item.parent.dataset.class) && seen.add(item.parent.dataset.class));
    items.splice(0, items.length, ...firsts, ...items.filter((item) => !firsts.includes(item)));
    if (showNames && several) {
      for (const l of labelsOf(p.name)) items.push({ box: l, text: l.class, kind: 'mark', color: colorOf(l.class), parent: ui.captions });
    }
    const hovered = state.hover;
    const hit = (b) => hovered && hovered.x >= b.x && hovered.x <= b.x + b.w && hovered.y >= b.y && hovered.y <= b.y + b.h;
    let hoverItem = null;
    for (const item of items) {
      if (hit(item.box) && (!hoverItem || item.box.w * item.box.h < hoverItem.box.w * hoverItem.box.h)) hoverItem = item;
    }
    const sameBox = (a, q) => a.x === q.x && a.y === q.y && a.w === q.w && a.h === q.h;
    const meets = (a, q) => q.x < a.x + a.w && a.x < q.x + q.w && q.y < a.y + a.h && a.y < q.y + q.h;
    // The middle of every other box (its outer fifth on each side left
    // out): a caption may touch a neighbour's edge, never cover its object.
    const cores = [...labelsOf(p.name), ...items.map((item) => item.box)].map((b) => {
      return { x: b.x + b.w * 0.2, y: b.y + b.h * 0.2, w: b.w * 0.6, h: b.h * 0.6, owner: b };
    });
    for (const item of items) {
      const b = item.box;
      const width = item.text.length * font * 0.6 + font * 0.6;
      const height = font * 1.3;
      const fits = (r) => r.x >= 0 && r.y >= 0 && r.x + r.w <= p.width && r.y + r.h <= p.height;
      // Outside the box, touching its top: above it, else beside its top
      // edge on the right or the left; the first that covers no other
      // caption and no other object (below a box it would read as the
      // caption of the box underneath). Where none does, above (or inside
      // the top edge at the picture's border) if no caption is there.
      const left = Math.max(0, Math.min(b.x, p.width - width));
      const candidates = [
        { x: left, y: b.y - height, w: width, h: height },
        { x: b.x + b.w, y: b.y, w: width, h: height },
        { x: b.x - width, y: b.y, w: width, h: height },
      ].filter(fits);
      const free = (r) => !placed.some((q) => meets(r, q));
      const clear = (r) => free(r) && !cores.some((c) => c.owner !== b && !sameBox(c.owner, b) && meets(r, c));
      const fallback = { x: left, y: b.y - height >= 0 ? b.y - height : b.y, w: width, h: height };
      const rect = candidates.find(clear) || fallback;
      const small = b.w * s < CAPTION_MIN_BOX_PX.w || b.h * s < CAPTION_MIN_BOX_PX.h;
      const overlaps = !free(rect);
      if (item !== hoverItem && (small || overlaps)) continue;
      if (item !== hoverItem) placed.push(rect);
      drawCaption(item.parent, rect, font, item, item === hoverItem && (small || overlaps));
    }
  }

  function drawCaption(parent, rect, font, item, floating) {
    const g = floating ? ui.captions : parent;
    // A captioned detection is drawn after the others, so that no other
    // box's outline crosses its caption.
    if (!floating && parent !== ui.captions && parent.parentNode) parent.parentNode.appendChild(parent);
    const bg = svg('rect', { class: 'det-caption-bg ' + item.kind + (floating ? ' floating' : ''), x: rect.x, y: rect.y,
      width: rect.w, height: rect.h }, g);
    if (item.color) bg.style.fill = item.color;
    const t = svg('text', { class: 'det-caption', x: rect.x + font * 0.3, y: rect.y + font * 1.0, 'font-size': font }, g);
    t.textContent = item.text;
  }

  function updateControls() {
    const p = picture(state.current);
    const boxes = p ? labelsOf(p.name) : [];
    ui.train.disabled = !p || boxes.length === 0 || state.training || state.busy;
    ui.train.textContent = state.training ? 'Training…' : 'Train';
    ui.train.classList.toggle('busy', state.training);
    ui.accept.disabled = !p || !state.trained || state.training || state.busy;
    ui.acceptAll.disabled = !state.trained || state.training || state.busy;
    ui.clearBoxes.disabled = boxes.length === 0;
    const h = p && state.history.get(p.name);
    ui.undo.disabled = !h || h.undo.length === 0;
    ui.redo.disabled = !h || h.redo.length === 0;
    ui.pictureName.textContent = p ? `${p.name} · ${p.width} × ${p.height}` : '';
    renderProfile();
    updateHint(p, boxes);
  }

  function updateHint(p, boxes) {
    let html;
    const cls = state.currentClass ? `<strong>${escapeHtml(state.currentClass)}</strong>` : 'the object';
    if (!p) {
      html = 'Add pictures: drop them on the page or press <strong>+ Add</strong>.';
    } else if (state.training) {
      html = 'Training… each pass tests the detector on your picture and learns from its mistakes.';
    } else if (state.trained && boxes.length === 0) {
      html = 'The dashed boxes are what the detector found. Press <strong>A</strong> to take them as labels, then correct them; or click on each object to mark it yourself.';
    } else if (state.trained) {
      html = 'Trained. Check the boxes found on other pictures (<strong>→</strong> next picture): press <strong>A</strong> to accept them, fix what is wrong, and press <strong>Train</strong> again to teach it more.';
    } else if (!sizeFor(p, state.currentClass)) {
      html = `<strong>Step 1.</strong> Drag a box around <em>one</em> ${cls}. Its size becomes the size the detector looks for.`;
    } else if (boxes.length === 0) {
      html = `<strong>Step 2.</strong> <strong>Click</strong> on each ${cls} (or drag around it): a box of the class's size appears.`;
    } else {
      html = '<strong>Step 2.</strong> Click on <em>every</em> object of each class in the picture: anything left unmarked is learnt as background. ' +
        'Zoom with the wheel; keys 1-9 choose the class. <strong>Step 3.</strong> Press <strong>Train</strong>.';
    }
    ui.hint.innerHTML = html;
  }

  function escapeHtml(text) {
    return text.replace(/[&<>"']/g, (c) => ({ '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', "'": '&#39;' }[c]));
  }

  function renderStrip() {
    ui.pictureList.replaceChildren();
    for (const p of state.pictures) {
      const li = document.createElement('li');
      li.dataset.name = p.name;
      if (p.name === state.current) li.classList.add('selected');
      const button = document.createElement('button');
      button.type = 'button';
      button.title = p.name;
      const img = document.createElement('img');
      img.loading = 'lazy';
      img.alt = p.name;
      img.src = pictureUrl(p.name);
      const caption = document.createElement('div');
      caption.className = 'caption';
      const name = document.createElement('span');
      name.className = 'name';
      name.textContent = p.name;
      const labelled = document.createElement('span');
      labelled.className = 'labelled';
      const info = document.createElement('span');
      info.className = 'found';
      caption.append(name, labelled, info);
      button.append(img, caption);
      button.addEventListener('click', () => openPicture(p.name));
      li.appendChild(button);
      ui.pictureList.appendChild(li);
    }
    updateStripInfo();
  }

  function updateStripInfo() {
    for (const li of ui.pictureList.children) {
      const p = picture(li.dataset.name);
      const info = li.querySelector('.caption span:last-child');
      const labelled = li.querySelector('.caption .labelled');
      const reply = state.detections.get(li.dataset.name);
      li.classList.toggle('selected', li.dataset.name === state.current);
      const n = labelsOf(li.dataset.name).length;
      labelled.textContent = n ? `✎${n}` : '';
      labelled.title = n ? `${n} labelled boxes` : '';
      li.dataset.labels = String(n);
      if (state.trained && reply) {
        const found = reply.boxes.filter((b) => b.label === 1 && b.score > 0).length;
        info.className = 'found';
        info.textContent = `${found} found`;
      } else if (p && p.taught && p.taught.length) {
        info.className = 'taught-badge';
        info.textContent = `taught ${p.taught.length}`;
      } else {
        info.textContent = '';
      }
    }
  }

  // ---------------------------------------------------------- pictures
  async function loadPictures(keepCurrent) {
    state.pictures = await api('GET', '/api/pictures');
    for (const p of state.pictures) state.labels.set(p.name, p.labels || []);
    if (!keepCurrent || !picture(state.current)) state.current = state.pictures.length ? state.pictures[0].name : null;
    renderStrip();
  }

  async function bitmapOf(name) {
    if (state.bitmaps.has(name)) return state.bitmaps.get(name);
    const img = ui.picture;
    await img.decode().catch(() => {});
    let bitmap = img;
    try { bitmap = await createImageBitmap(img); } catch (error) { /* draw from the element */ }
    state.bitmaps.set(name, bitmap);
    // Only a few decoded pictures are kept.
    if (state.bitmaps.size > 4) {
      const oldest = state.bitmaps.keys().next().value;
      const b = state.bitmaps.get(oldest);
      if (b && b.close) b.close();
      state.bitmaps.delete(oldest);
    }
    return bitmap;
  }

  function openPicture(name) {
    const p = picture(name);
    if (!p) return;
    state.current = name;
    state.selected = -1;
    state.hover = null;
    // A reply of another sensitivity (the strip's, made before the slider
    // moved) is never drawn on the opened picture, also while the slider's
    // detections follow it there: its own reply comes next.
    const kept = state.detections.get(name);
    if (kept && kept.sensitivity !== Number(ui.sensitivity.value)) state.detections.delete(name);
    ui.detections.replaceChildren();
    ui.foundCount.textContent = '';
    ui.detectionTime.textContent = '–';
    viewer.show(p.width, p.height, state.bitmaps.get(name) || null);
    if (!state.bitmaps.has(name)) {
      ui.picture.onload = async () => {
        if (state.current !== name) return;
        const bitmap = await bitmapOf(name);
        if (state.current === name) viewer.setSource(bitmap);
      };
      ui.picture.src = pictureUrl(name);
    }
    renderMarks();
    updateStripInfo();
    const li = ui.pictureList.querySelector(`li[data-name="${CSS.escape(name)}"]`);
    if (li) li.scrollIntoView({ block: 'nearest' });
    if (state.trained) detectCurrent(Number(ui.sensitivity.value));
  }

  function stepPicture(delta, absolute) {
    if (!state.pictures.length) return;
    const at = state.pictures.findIndex((p) => p.name === state.current);
    let next = absolute !== undefined ? absolute : at + delta;
    next = Math.max(0, Math.min(state.pictures.length - 1, next));
    if (next !== at) openPicture(state.pictures[next].name);
  }

  async function uploadPictures(files) {
    let added = 0;
    let lastName = null;
    for (const file of files) {
      try {
        const reply = await api('POST', '/api/pictures?name=' + encodeURIComponent(file.name), file,
          'application/octet-stream');
        added += 1;
        lastName = reply.name;
      } catch (error) {
        notify(`${file.name}: ${error.message}`, true);
      }
    }
    if (added) {
      await loadPictures(true);
      openPicture(lastName);
      notify(added === 1 ? 'Picture added.' : `${added} pictures added.`);
      refreshCounts();
    }
  }

  // ---------------------------------------------------------- detection
  // Detects on the shown picture; resolves once the boxes are drawn.
  async function detectCurrent(sensitivity) {
    const name = state.current;
    if (!name || !state.trained) return null;
    const seq = ++state.detectSeq;
    try {
      state.detectInFlight = api('GET', `/api/detect?picture=${encodeURIComponent(name)}&sensitivity=${sensitivity}`);
      const reply = await state.detectInFlight;
      state.detections.set(name, reply);
      if (seq === state.detectSeq && name === state.current) {
        renderDetections();
        metrics.lastDetectionMs = reply.ms;
        updateStripInfo();
      }
      return reply;
    } catch (error) {
      if (error.status === 409) { state.trained = false; refreshStatus(); }
      else notify(error.message, true);
      return null;
    }
  }

  // Before the detector is forgotten: the strip's counts stop, and the
  // detections already asked for are answered first (asked after the
  // reset, they would be refused as "nothing is trained").
  async function quietDetections() {
    state.countsSeq++;
    const pending = [state.countsInFlight, state.detectInFlight].filter(Boolean);
    await Promise.all(pending.map((p) => p.catch(() => null)));
  }

  // The number found on every picture of the strip, one request at a time.
  async function refreshCounts() {
    const seq = ++state.countsSeq;
    if (!state.trained) { updateStripInfo(); return; }
    const sensitivity = Number(ui.sensitivity.value);
    for (const p of state.pictures) {
      if (seq !== state.countsSeq || state.sliderBusy) return;
      if (p.name === state.current) continue;
      try {
        state.countsInFlight = api('GET', `/api/detect?picture=${encodeURIComponent(p.name)}&sensitivity=${sensitivity}`);
        const reply = await state.countsInFlight;
        if (seq !== state.countsSeq) return;
        state.detections.set(p.name, reply);
        updateStripInfo();
      } catch (error) {
        return;
      }
    }
  }

  // While the slider moves, one request is in flight at a time and the
  // newest value goes next: the boxes follow the slider without a queue.
  function onSlider() {
    const sensitivity = Number(ui.sensitivity.value);
    showSensitivity(sensitivity);
    if (!state.trained || !state.current) return;
    state.countsSeq++;  // counts of other pictures wait until the slider rests
    const request = { sensitivity, t0: performance.now() };
    if (state.sliderBusy) { state.sliderPending = request; return; }
    runSlider(request);
  }
  async function runSlider(request) {
    state.sliderBusy = true;
    state.sliderPicture = state.current;
    await detectCurrent(request.sensitivity);
    await nextFrame();
    metrics.sliderToDrawnMs.push(performance.now() - request.t0);
    state.sliderBusy = false;
    const pending = state.sliderPending;
    state.sliderPending = null;
    if (pending && pending.sensitivity !== request.sensitivity) runSlider(pending);
  }
  function showSensitivity(sensitivity) {
    ui.sensitivityValue.textContent = String(sensitivity);
    // Before the status comes, the page keeps the number it was served with
    // (the default sensitivity's).
    const needed = confidenceNeeded(sensitivity);
    if (needed !== null) ui.threshold.textContent = String(needed);
    updateExportLinks();
  }

  // ------------------------------------------------------ accepting finds
  async function acceptHere() {
    const p = picture(state.current);
    if (!p || !state.trained || state.busy || state.training) return;
    state.busy = true;
    updateControls();
    const before = copyLabels(labelsOf(p.name));
    try {
      await flushSaves(p.name);
      const reply = await postJson('/api/accept', { picture: p.name, sensitivity: Number(ui.sensitivity.value) });
      const got = reply.pictures[0];
      const h = historyOf(p.name);
      h.undo.push(before);
      h.redo = [];
      state.labels.set(p.name, got.labels);
      state.classes = reply.classes || state.classes;
      afterLabelsChanged(p.name);
      notify(got.added === 1 ? '1 box accepted as a label.' : `${got.added} boxes accepted as labels.`);
    } catch (error) { notify(error.message, true); }
    state.busy = false;
    updateControls();
  }

  async function acceptEverywhere() {
    if (!state.trained || state.busy || state.training) return;
    state.busy = true;
    updateControls();
    const t0 = performance.now();
    try {
      for (const name of state.saves.keys()) await flushSaves(name);
      const reply = await postJson('/api/accept', { unlabelled: true, sensitivity: Number(ui.sensitivity.value) });
      for (const got of reply.pictures) {
        const h = historyOf(got.picture);
        h.undo.push(copyLabels(labelsOf(got.picture)));
        h.redo = [];
        state.labels.set(got.picture, got.labels);
      }
      state.classes = reply.classes || state.classes;
      countClassBoxes();
      updateStripInfo();
      renderMarks();
      metrics.acceptAllMs = performance.now() - t0;
      const pictures = reply.pictures.filter((g) => g.added > 0).length;
      notify(`${reply.added} boxes accepted as labels on ${pictures} pictures (${(reply.ms / 1000).toFixed(1)} s).`);
    } catch (error) { notify(error.message, true); }
    state.busy = false;
    updateControls();
  }

  // ----------------------------------------------------------- training
  function stepText(step) {
    const who = step.class ? `${step.class} on ${step.picture}` : step.picture;
    if (step.pass === 0) {
      // The accurate profile reports no sample count while it trains.
      return step.samples > 0 ? `First training of ${who}: ${step.samples} samples` : `Training of ${who}`;
    }
    const wrong = step.false_positives === 1 ? '1 wrong find' : `${step.false_positives} wrong finds`;
    const weak = step.low_confidence === 1 ? '1 weak one' : `${step.low_confidence} weak ones`;
    return `Pass ${step.pass}: ${wrong} and ${weak} learnt as background`;
  }
  function renderSteps(steps, closing, failed) {
    ui.steps.replaceChildren();
    for (const step of steps) {
      const li = document.createElement('li');
      li.className = 'step';
      li.dataset.pass = String(step.pass);
      li.textContent = stepText(step);
      const time = document.createElement('span');
      time.className = 'muted';
      time.textContent = ` (${(step.ms / 1000).toFixed(2)} s)`;
      li.appendChild(time);
      ui.steps.appendChild(li);
    }
    if (closing) {
      const li = document.createElement('li');
      li.className = failed ? 'failed' : 'done';
      li.textContent = closing;
      ui.steps.appendChild(li);
    }
    ui.steps.scrollTop = ui.steps.scrollHeight;
  }

  // Shows the steps of the running training as the library reports them.
  function watchProgress() {
    let stopped = false;
    const poll = async () => {
      if (stopped) return;
      try {
        const progress = await api('GET', '/api/train/progress');
        if (!stopped && progress.running) renderSteps(progress.steps, null, false);
      } catch (error) { /* the training's own reply reports failures */ }
      if (!stopped) setTimeout(poll, PROGRESS_POLL_MS);
    };
    poll();
    return () => { stopped = true; };
  }

  function trainedText(reply) {
    // The reply's pass count is the last class's; with several classes the
    // step list above already shows each class's, so the count is left out.
    const several = reply.classes && reply.classes.length > 1;
    const passes = reply.passes === 0 || several ? '' : (reply.passes === 1 ? ' (1 pass)' : ` (${reply.passes} passes)`);
    const what = several ? ` (${reply.classes.map((c) => c.class).join(', ')})` : '';
    return `Trained in ${(reply.ms / 1000).toFixed(2)} s${what}${passes}; ${reply.samples} boxes learnt`;
  }

  async function train() {
    const p = picture(state.current);
    const boxes = p ? labelsOf(p.name) : [];
    if (!p || boxes.length === 0 || state.training) return;
    const t0 = performance.now();
    state.training = true;
    updateControls();
    renderSteps([], 'Training…', false);
    const stopWatching = watchProgress();
    try {
      if (!(await flushSaves(p.name))) throw new Error('the labels of this picture could not be saved');
      const reply = await postJson('/api/train/labels', { picture: p.name });
      stopWatching();
      state.trained = true;
      renderSteps(reply.steps, trainedText(reply), false);
      ui.trainingTime.textContent = `${(reply.ms / 1000).toFixed(2)} s`;
      metrics.lastTrainingMs = reply.ms;
      p.taught = boxes.map(boxOf);
      state.detections.clear();
      state.training = false;
      await refreshStatus();
      await detectCurrent(Number(ui.sensitivity.value));
      await nextFrame();
      metrics.trainClickToDrawnMs = performance.now() - t0;
      loadSamples();
      refreshCounts();
    } catch (error) {
      stopWatching();
      state.training = false;
      renderSteps([], 'Training was refused: ' + error.message, true);
      notify(error.message, true);
    }
    updateControls();
  }

  // ------------------------------------------------------------ samples
  async function loadSamples() {
    let reply;
    try { reply = await api('GET', '/api/samples'); } catch (error) { return; }
    ui.samples.replaceChildren();
    ui.sampleCount.textContent = reply.samples.length ? `(${reply.samples.length})` : '';
    for (const s of reply.samples) {
      const li = document.createElement('li');
      li.className = 'sample';
      const img = document.createElement('img');
      img.src = s.thumbnail;
      img.alt = `sample ${s.index + 1}` + (s.picture ? ` from ${s.picture}` : '');
      img.title = (s.class ? s.class + ': ' : '') + (s.picture ? `${s.picture}, box ${s.box.join(', ')}` : `sample ${s.index + 1}`);
      if (s.class) img.style.borderColor = colorOf(s.class);
      const remove = document.createElement('button');
      remove.type = 'button';
      remove.className = 'remove-sample';
      remove.title = 'Forget this sample and retrain';
      remove.setAttribute('aria-label', 'Remove sample ' + (s.index + 1));
      remove.textContent = '×';
      remove.addEventListener('click', () => removeSample(s));
      li.append(img, remove);
      ui.samples.appendChild(li);
    }
  }

  async function removeSample(sample) {
    for (const b of ui.samples.querySelectorAll('button')) b.disabled = true;
    try {
      const reply = await api('DELETE', `/api/samples/${sample.index}`);
      // The detector forgets the box; the label stays (it is still the object).
      const p = sample.picture && picture(sample.picture);
      if (p && p.taught) {
        const t = p.taught.findIndex((b) => b.join(',') === sample.box.join(','));
        if (t >= 0) p.taught.splice(t, 1);
      }
      state.detections.clear();
      renderSteps([], `Sample removed; retrained in ${(reply.ms / 1000).toFixed(2)} s`, false);
      await refreshStatus();
      renderDetections();
      await detectCurrent(Number(ui.sensitivity.value));
      await loadSamples();
      refreshCounts();
    } catch (error) {
      notify(error.message, true);
      for (const b of ui.samples.querySelectorAll('button')) b.disabled = false;
    }
  }

  // ------------------------------------------------------ status and model
  // The one place the page learns what the detector is: every panel that
  // shows it is drawn from the same reply, so they cannot disagree.
  async function refreshStatus() {
    try {
      state.status = await api('GET', '/api/status');
    } catch (error) { return; }
    const st = state.status;
    state.trained = st.trained;
    if (st.version) {
      ui.version.textContent = `version ${st.version}`;
      document.title = `ostrel studio ${st.version}`;
    }
    showSensitivity(Number(ui.sensitivity.value));
    if (st.classes) {
      for (const c of st.classes) {
        const mine = classOf(c.name);
        if (mine) { mine.trained = c.trained; mine.color = c.color; }
      }
      if (st.classes.length !== state.classes.length) await loadClasses();
      renderClasses();
    }
    const trainedClasses = (st.classes || []).filter((c) => c.trained).map((c) => c.name);
    const profile = `${st.profile} profile`;
    renderProfile();
    ui.modelState.dataset.trained = st.trained ? 'true' : 'false';
    // A model of many classes (a chess set's twelve) is named by their
    // number in the badge, and by their names in its tooltip.
    const named = trainedClasses.length > 4 ? `${trainedClasses.length} classes` : trainedClasses.join(', ');
    ui.modelState.title = trainedClasses.join(', ');
    if (!st.trained) ui.modelState.textContent = `Not trained yet · ${profile}`;
    else if (st.model && st.model !== 'trained in the studio') ui.modelState.textContent = `Model ${st.model} · ${named} · ${profile}`;
    else ui.modelState.textContent = `Trained: ${named || 'ready'} · ${st.samples} samples · ${profile}`;
    ui.saveModel.setAttribute('aria-disabled', st.trained ? 'false' : 'true');
    renderModelButtons(st, trainedClasses);
    if (st.labels) {
      ui.labelsWhere.textContent = st.labels.description;
      showSaveState();
    }
    // The training panel agrees with the badge after a reload too.
    if (!state.training && ui.steps.querySelector('li.muted')) {
      if (st.trained) {
        const pictures = [...new Set(st.taught.map((t) => t.picture))];
        const from = st.model && st.model !== 'trained in the studio' ? `the model ${st.model}`
          : (pictures.length ? pictures.join(', ') : 'the studio');
        renderSteps([], `Trained earlier from ${from}: ${st.samples} samples`, false);
      }
    }
    if (!st.trained) {
      ui.detections.replaceChildren();
      ui.foundCount.textContent = '';
      if (!ui.steps.querySelector('li.failed')) ui.steps.innerHTML = '<li class="muted">Not trained yet.</li>';
    }
    updateExportLinks();
    updateStripInfo();
    updateControls();
  }

  // One "Save model" link while every trained class is in one model file
  // (one class, or the accurate profile's model of several classes); else
  // one a model file: the classic profile learns one class a model, and a
  // class opened from its own model file keeps it. The page says why.
  function renderModelButtons(st, trainedClasses) {
    for (const a of ui.modelButtons.querySelectorAll('a.class-model')) a.remove();
    const files = st.model_files || 0;
    ui.saveModel.hidden = files > 1;
    ui.saveModel.textContent = trainedClasses.length > 1 && files <= 1
      ? `Save model (${trainedClasses.length} classes)` : 'Save model';
    const detectors = (st.detectors || []).filter((d) => d.trained);
    if (files > 1) {
      // A link a model file: a shared file's link is named by all its classes.
      const shared = detectors.filter((d) => d.shared).map((d) => d.name);
      const links = detectors.filter((d) => !d.shared).map((d) => [d.name, d.name]);
      if (shared.length) links.push([shared[0], shared.join(', ')]);
      for (const [name, label] of links.reverse()) {
        const a = document.createElement('a');
        a.className = 'button class-model';
        a.href = '/api/model?class=' + encodeURIComponent(name);
        a.download = `${name}.model`;
        a.textContent = `Save ${label} model`;
        ui.modelButtons.prepend(a);
      }
    }
    const labelled = state.classes.length;
    if (st.profile === 'classic' && Math.max(labelled, trainedClasses.length) > 1) {
      ui.modelNote.textContent = 'The classic profile learns one class a model: one model of every class, ' +
        'detected in one pass, needs the accurate profile.';
    } else if (files > 1) {
      ui.modelNote.textContent = 'A class opened from its own model file keeps that file; the other classes ' +
        'share one model.';
    } else {
      ui.modelNote.textContent = '';
    }
    ui.modelNote.hidden = !ui.modelNote.textContent;
  }

  function updateExportLinks() {
    const format = ui.exportFormat.value;
    ui.exportLabels.href = `/api/export/labels?format=${format}`;
    ui.exportDetections.href = `/api/export/detections?format=${format}&sensitivity=${ui.sensitivity.value}`;
    ui.exportDetections.setAttribute('aria-disabled', state.trained ? 'false' : 'true');
  }

  async function openModel(file) {
    try {
      const target = state.currentClass ? '&class=' + encodeURIComponent(state.currentClass) : '';
      const reply = await api('POST', '/api/model?name=' + encodeURIComponent(file.name) + target, file,
        'application/octet-stream');
      for (const p of state.pictures) p.taught = [];
      state.detections.clear();
      renderSteps([], `Model ${file.name} loaded`, false);
      ui.trainingTime.textContent = '–';
      await refreshStatus();
      await detectCurrent(Number(ui.sensitivity.value));
      loadSamples();
      refreshCounts();
      // The file decides the profile; the studio says which it took.
      const fromFile = (reply.detectors || []).filter((d) => d.trained && d.model === file.name).map((d) => d.name);
      const classes = fromFile.length > 4 ? `; ${fromFile.length} classes`
        : (fromFile.length > 1 ? `; classes ${fromFile.join(', ')}` : '');
      notify(`Model ${file.name} loaded (${reply.profile} profile${classes}). Training again starts a new model from your boxes.`);
    } catch (error) {
      notify(`The model was not loaded: ${error.message}`, true);
      renderSteps([], `Model ${file.name} refused: ${error.message}`, true);
    }
  }

  // ------------------------------------------------------------ profile
  // The radio buttons show the profile the studio reports, never the one
  // clicked: a switch shows once the studio has made it.
  function renderProfile() {
    const current = state.status ? state.status.profile : null;
    for (const input of ui.profileChoice.querySelectorAll('input')) {
      input.checked = input.value === current;
      input.disabled = state.training || state.busy;
    }
  }

  async function chooseProfile(to) {
    const st = state.status;
    renderProfile();
    if (!st || st.profile === to || state.training || state.busy) return;
    if (!st.trained) {
      await switchProfile(to, undefined);
      return;
    }
    // Trained: the person chooses what becomes of the taught detector.
    const trainedClasses = (st.detectors || []).filter((d) => d.trained);
    const fromFiles = trainedClasses.filter((d) => d.model && !d.pictures);
    const names = trainedClasses.map((d) => d.name).join(', ');
    ui.profileDialogTitle.textContent = `Switch to the ${to} profile?`;
    ui.profileDialogText.textContent = `The detector was trained under the ${st.profile} profile (${names}; ` +
      `${st.samples} samples), and a model works only under the profile that made it. ` +
      `Train every class again from its taught pictures under the ${to} profile, or forget what it learnt. ` +
      'Your labels stay in their files either way.';
    ui.profileRetrain.textContent = `Train again under ${to}`;
    ui.profileRetrain.disabled = fromFiles.length > 0;
    ui.profileCancel.textContent = `Keep ${st.profile}`;
    ui.profileDialogNote.textContent = fromFiles.length
      ? `${fromFiles.map((d) => d.name).join(', ')} came from a model file (${fromFiles.map((d) => d.model).join(', ')}), ` +
        'which holds no pictures to learn again: save it first (Save model) if you want to keep it.'
      : '';
    ui.profileDialog.dataset.to = to;
    ui.profileDialog.hidden = false;
    (fromFiles.length ? ui.profileCancel : ui.profileRetrain).focus();
  }

  function closeProfileDialog() { ui.profileDialog.hidden = true; }

  async function switchProfile(to, model) {
    closeProfileDialog();
    state.busy = true;
    updateControls();
    renderProfile();
    if (model === 'retrain') renderSteps([], `Training again under the ${to} profile…`, false);
    const stopWatching = model === 'retrain' ? watchProgress() : () => {};
    try {
      if (model === 'forget') await quietDetections();
      const reply = await postJson('/api/profile', model ? { profile: to, model } : { profile: to });
      stopWatching();
      state.detections.clear();
      if (reply.model === 'retrained') {
        renderSteps(reply.retrained.steps, `Trained again under the ${to} profile in ` +
          `${(reply.retrained.ms / 1000).toFixed(2)} s; ${reply.retrained.samples} boxes learnt`, false);
        ui.trainingTime.textContent = `${(reply.retrained.ms / 1000).toFixed(2)} s`;
      } else if (reply.model === 'forgotten') {
        for (const p of state.pictures) p.taught = [];
        ui.steps.innerHTML = '<li class="muted">Not trained yet.</li>';
        ui.trainingTime.textContent = '–';
        ui.detectionTime.textContent = '–';
      }
      state.busy = false;
      await refreshStatus();
      renderMarks();
      renderDetections();
      if (state.trained) await detectCurrent(Number(ui.sensitivity.value));
      loadSamples();
      refreshCounts();
      notify(reply.model === 'retrained' ? `Trained again under the ${to} profile.`
        : reply.model === 'forgotten' ? `The ${to} profile now; what the detector learnt was forgotten (your labels stay).`
          : `Training now uses the ${to} profile.`);
    } catch (error) {
      stopWatching();
      state.busy = false;
      if (model === 'retrain') renderSteps([], `The ${to} profile was not taken: ${error.message}`, true);
      notify(`The ${to} profile was not taken: ${error.message}`, true);
      await refreshStatus();
    }
    updateControls();
    renderProfile();
  }

  async function startOver() {
    if (!window.confirm('Forget everything the detector learnt? (Your labels stay in their files.)')) return;
    await quietDetections();
    await postJson('/api/reset', {});
    state.trained = false;
    state.detections.clear();
    for (const p of state.pictures) p.taught = [];
    renderSteps([], null, false);
    ui.steps.innerHTML = '<li class="muted">Not trained yet.</li>';
    ui.trainingTime.textContent = '–';
    ui.detectionTime.textContent = '–';
    await refreshStatus();
    renderMarks();
    renderDetections();
    loadSamples();
  }

  // ------------------------------------------------------ box editing
  let drag = null;

  function onPointerDown(event) {
    const p = picture(state.current);
    if (!p || event.button !== 0 || state.training) return;
    if (!event.isPrimary) return;
    const at = viewer.toPicture(event.clientX, event.clientY);
    const target = event.target;
    const boxes = labelsOf(p.name);
    ui.stage.setPointerCapture(event.pointerId);
    event.preventDefault();
    if (target.dataset.delete !== undefined) {
      const i = Number(target.dataset.delete);
      change(p.name, (list) => list.splice(i, 1));
      state.selected = -1;
      renderMarks();
      drag = null;
      return;
    }
    if (target.dataset.handle !== undefined) {
      const i = Number(target.dataset.handle);
      drag = { kind: 'resize', index: i, original: copyLabels(boxes), start: at, moved: false };
      return;
    }
    if (target.dataset.index !== undefined) {
      const i = Number(target.dataset.index);
      state.selected = i;
      drag = { kind: 'move', index: i, original: copyLabels(boxes), start: at, moved: false };
      renderMarks();
      return;
    }
    state.selected = -1;
    drag = { kind: 'draw', start: at, moved: false };
    renderMarks();
  }

  function onPointerMove(event) {
    const p = picture(state.current);
    if (!p) return;
    const at = viewer.toPicture(event.clientX, event.clientY);
    if (!drag) {
      if (event.pointerType === 'mouse') { state.hover = at; scheduleCaptions(); }
      return;
    }
    const dx = at.x - drag.start.x;
    const dy = at.y - drag.start.y;
    if (!drag.moved && Math.hypot(dx, dy) * viewer.scale < CLICK_SLOP) return;
    drag.moved = true;
    if (drag.kind === 'move') {
      const o = drag.original[drag.index];
      const list = copyLabels(drag.original);
      list[drag.index] = label(o.class, clampBox(p, o.x + dx, o.y + dy, o.w, o.h));
      state.labels.set(p.name, list);
      renderMarks();
    } else if (drag.kind === 'resize') {
      // Every box of the class takes the new size and keeps its centre.
      const o = drag.original[drag.index];
      const minimum = MIN_BOX / viewer.scale;
      const w = Math.max(minimum, at.x - o.x);
      const h = Math.max(minimum, at.y - o.y);
      const list = drag.original.map((l) => (l.class === o.class
        ? label(l.class, centredBox(p, l.x + l.w / 2, l.y + l.h / 2, { w, h })) : { ...l }));
      list[drag.index] = label(o.class, clampBox(p, o.x, o.y, w, h));
      state.labels.set(p.name, list);
      setSizeFrom(p, o.class, Math.round(w), Math.round(h));
      renderMarks();
    } else {
      const x = Math.max(0, Math.min(drag.start.x, at.x));
      const y = Math.max(0, Math.min(drag.start.y, at.y));
      ui.rubberBand.setAttribute('x', x);
      ui.rubberBand.setAttribute('y', y);
      ui.rubberBand.setAttribute('width', Math.min(p.width, Math.max(drag.start.x, at.x)) - x);
      ui.rubberBand.setAttribute('height', Math.min(p.height, Math.max(drag.start.y, at.y)) - y);
      ui.rubberBand.setAttribute('visible', 'true');
    }
  }

  let captionFrame = false;
  function scheduleCaptions() {
    if (captionFrame) return;
    captionFrame = true;
    requestAnimationFrame(() => { captionFrame = false; renderCaptions(); });
  }

  function onPointerUp(event) {
    if (!drag) return;
    const p = picture(state.current);
    const at = viewer.toPicture(event.clientX, event.clientY);
    const current = drag;
    drag = null;
    ui.rubberBand.setAttribute('visible', 'false');
    if (current.kind !== 'draw') {
      if (current.moved) {
        const now = copyLabels(labelsOf(p.name));
        state.labels.set(p.name, current.original);
        change(p.name, (list) => { list.splice(0, list.length, ...now); }, current.original);
      }
      renderMarks();
      return;
    }
    const cls = state.currentClass;
    if (!cls) { notify('Add a class first.'); return; }
    let box;
    if (!current.moved) {
      const size = sizeFor(p, cls);
      if (!size) { notify('Drag to draw your first box around one object.'); return; }
      box = centredBox(p, at.x, at.y, size);
    } else {
      const x0 = Math.max(0, Math.min(current.start.x, at.x));
      const y0 = Math.max(0, Math.min(current.start.y, at.y));
      const x1 = Math.min(p.width, Math.max(current.start.x, at.x));
      const y1 = Math.min(p.height, Math.max(current.start.y, at.y));
      if ((x1 - x0) * viewer.scale < MIN_BOX || (y1 - y0) * viewer.scale < MIN_BOX) {
        notify('That box is too small; drag a larger one.');
        return;
      }
      const size = sizeFor(p, cls);
      if (!size) {
        setSizeFrom(p, cls, Math.round(x1 - x0), Math.round(y1 - y0));
        box = clampBox(p, x0, y0, x1 - x0, y1 - y0);
      } else {
        box = centredBox(p, (x0 + x1) / 2, (y0 + y1) / 2, size);
      }
    }
    change(p.name, (list) => list.push(label(cls, box)));
    state.selected = -1;
    renderMarks();
  }

  function removeSelected() {
    if (state.selected < 0) return;
    const i = state.selected;
    change(state.current, (list) => list.splice(i, 1));
    state.selected = -1;
    renderMarks();
  }

  function onKey(event) {
    if (event.target instanceof HTMLInputElement || event.target instanceof HTMLSelectElement) {
      if (event.target.type !== 'range' && event.target.type !== 'checkbox') return;
      if (['ArrowLeft', 'ArrowRight', 'PageUp', 'PageDown', 'Home', 'End'].includes(event.key)) return;
    }
    const k = event.key;
    const ctrl = event.ctrlKey || event.metaKey;
    // The profile dialog takes no shortcut: a key must not act behind it.
    if (!ui.profileDialog.hidden) {
      if (k === 'Escape') closeProfileDialog();
      return;
    }
    if (ctrl && k.toLowerCase() === 'z') {
      event.preventDefault();
      if (event.shiftKey) redo(); else undo();
    } else if (ctrl && k.toLowerCase() === 'y') {
      event.preventDefault();
      redo();
    } else if (ctrl || event.altKey) {
      return;
    } else if (k === '?') {
      event.preventDefault();
      toggleHelp();
    } else if (k === 'Escape') {
      toggleHelp(false);
      state.selected = -1;
      renderMarks();
    } else if ((k === 'Delete' || k === 'Backspace') && state.selected >= 0) {
      event.preventDefault();
      removeSelected();
    } else if (k === 'ArrowRight' || k === 'PageDown') {
      event.preventDefault();
      stepPicture(1);
    } else if (k === 'ArrowLeft' || k === 'PageUp') {
      event.preventDefault();
      stepPicture(-1);
    } else if (k === 'Home') {
      event.preventDefault();
      stepPicture(0, 0);
    } else if (k === 'End') {
      event.preventDefault();
      stepPicture(0, state.pictures.length - 1);
    } else if (k >= '1' && k <= '9') {
      const c = state.classes[Number(k) - 1];
      if (c) chooseClass(c.name);
    } else if (k === '+' || k === '=') {
      viewer.changeTime = performance.now();
      viewer.zoomBy(Math.SQRT2);
    } else if (k === '-' || k === '_') {
      viewer.changeTime = performance.now();
      viewer.zoomBy(Math.SQRT1_2);
    } else if (k === '0') {
      viewer.toggleFit();
    } else if (k === ' ') {
      event.preventDefault();
      viewer.setSpaceHeld(true);
    } else if (k.toLowerCase() === 'a') {
      acceptHere();
    } else if (k.toLowerCase() === 't') {
      train();
    } else if (k.toLowerCase() === 's') {
      ui.showScores.checked = !ui.showScores.checked;
      renderCaptions();
    } else if (k.toLowerCase() === 'n') {
      ui.showNames.checked = !ui.showNames.checked;
      renderCaptions();
    }
  }

  // --------------------------------------------------------- drag and drop
  function setUpDrop() {
    let depth = 0;
    const hasFiles = (event) => event.dataTransfer && [...event.dataTransfer.types].includes('Files');
    window.addEventListener('dragenter', (event) => {
      if (!hasFiles(event)) return;
      depth += 1;
      ui.dropOverlay.hidden = false;
    });
    window.addEventListener('dragleave', () => {
      depth = Math.max(0, depth - 1);
      if (depth === 0) ui.dropOverlay.hidden = true;
    });
    window.addEventListener('dragover', (event) => { if (hasFiles(event)) event.preventDefault(); });
    window.addEventListener('drop', (event) => {
      if (!hasFiles(event)) return;
      event.preventDefault();
      depth = 0;
      ui.dropOverlay.hidden = true;
      uploadPictures([...event.dataTransfer.files]);
    });
  }

  // --------------------------------------------------------------- start
  const viewer = new window.StudioViewer({ stage: ui.stage, view: ui.view, overlay: ui.overlay, onViewChange });
  window.studioViewer = viewer;
  // The time from a zoom step to its frame, as a person sees it.
  // Drawn: the canvas and the boxes are done; painted: the next frame has
  // begun, so the browser has put the drawn one on the screen.
  const draw = viewer.draw.bind(viewer);
  viewer.draw = () => {
    const t = viewer.changeTime;
    draw();
    if (t !== null) {
      metrics.zoomToDrawnMs.push(performance.now() - t);
      requestAnimationFrame(() => metrics.zoomToPaintedMs.push(performance.now() - t));
    }
  };

  async function start() {
    viewer.attach();
    ui.stage.addEventListener('pointerdown', onPointerDown);
    ui.stage.addEventListener('pointermove', onPointerMove);
    ui.stage.addEventListener('pointerup', onPointerUp);
    ui.stage.addEventListener('pointercancel', () => { drag = null; ui.rubberBand.setAttribute('visible', 'false'); });
    ui.stage.addEventListener('pointerleave', () => { if (state.hover) { state.hover = null; scheduleCaptions(); } });
    document.addEventListener('keydown', onKey);
    document.addEventListener('keyup', (event) => { if (event.key === ' ') viewer.setSpaceHeld(false); });
    window.addEventListener('blur', () => viewer.setSpaceHeld(false));
    window.addEventListener('beforeunload', (event) => {
      if (unsaved().pending) { event.preventDefault(); event.returnValue = ''; }
    });
    ui.train.addEventListener('click', train);
    ui.accept.addEventListener('click', acceptHere);
    ui.acceptAll.addEventListener('click', acceptEverywhere);
    ui.undo.addEventListener('click', undo);
    ui.redo.addEventListener('click', redo);
    ui.clearBoxes.addEventListener('click', () => {
      change(state.current, (list) => list.splice(0, list.length));
      state.selected = -1;
      renderMarks();
    });
    ui.zoomIn.addEventListener('click', () => viewer.zoomBy(Math.SQRT2));
    ui.zoomOut.addEventListener('click', () => viewer.zoomBy(Math.SQRT1_2));
    ui.zoomFit.addEventListener('click', () => viewer.toggleFit());
    ui.showScores.addEventListener('change', renderCaptions);
    ui.showNames.addEventListener('change', renderCaptions);
    ui.sensitivity.addEventListener('input', onSlider);
    ui.sensitivity.addEventListener('change', () => refreshCounts());
    ui.exportFormat.addEventListener('change', updateExportLinks);
    ui.addPictures.addEventListener('click', () => ui.pictureFiles.click());
    ui.pictureFiles.addEventListener('change', () => {
      uploadPictures([...ui.pictureFiles.files]);
      ui.pictureFiles.value = '';
    });
    ui.addClass.addEventListener('submit', (event) => {
      event.preventDefault();
      addClass(ui.newClass.value);
      ui.newClass.value = '';
    });
    ui.openModel.addEventListener('click', () => ui.modelFile.click());
    ui.modelFile.addEventListener('change', () => {
      if (ui.modelFile.files.length) openModel(ui.modelFile.files[0]);
      ui.modelFile.value = '';
    });
    ui.startOver.addEventListener('click', startOver);
    for (const input of ui.profileChoice.querySelectorAll('input')) {
      input.addEventListener('change', () => chooseProfile(input.value));
    }
    ui.profileRetrain.addEventListener('click', () => switchProfile(ui.profileDialog.dataset.to, 'retrain'));
    ui.profileForget.addEventListener('click', () => switchProfile(ui.profileDialog.dataset.to, 'forget'));
    ui.profileCancel.addEventListener('click', closeProfileDialog);
    ui.profileDialog.addEventListener('click', (event) => { if (event.target === ui.profileDialog) closeProfileDialog(); });
    ui.helpButton.addEventListener('click', () => toggleHelp());
    ui.help.addEventListener('click', (event) => { if (event.target === ui.help) toggleHelp(false); });
    setUpDrop();
    renderShortcuts();
    showSensitivity(Number(ui.sensitivity.value || DEFAULT_SENSITIVITY));

    try {
      await loadClasses();
      await loadPictures(false);
      await refreshStatus();
      if (state.current) openPicture(state.current);
      else updateControls();
      countClassBoxes();
      loadSamples();
      refreshCounts();
      document.body.dataset.ready = 'true';
    } catch (error) {
      notify('The studio does not answer: ' + error.message, true);
    }
  }

  start();
})();
