// ostrel studio: the page. It talks to the studio only through the JSON
// interface under /api/ (see the README), and keeps the boxes a person marks
// per picture until they are trained.
'use strict';

(() => {
  const SVG = 'http://www.w3.org/2000/svg';
  const DEFAULT_SENSITIVITY = 80;
  const CLICK_SLOP = 4;        // screen pixels a click may move and stay a click
  const MIN_BOX = 8;           // picture pixels: the smallest box that can be drawn
  const PROGRESS_POLL_MS = 40; // how often training progress is asked for while it runs

  const $ = (id) => document.getElementById(id);
  const ui = {
    modelState: $('model-state'), pictureList: $('picture-list'), addPictures: $('add-pictures'),
    pictureFiles: $('picture-files'), train: $('train'), undo: $('undo'), clearBoxes: $('clear-boxes'),
    pictureName: $('picture-name'), hint: $('hint'), canvas: $('canvas'), picture: $('picture'),
    overlay: $('overlay'), detections: $('detections'), marks: $('marks'), rubberBand: $('rubber-band'),
    foundCount: $('found-count'), sensitivity: $('sensitivity'), sensitivityValue: $('sensitivity-value'),
    threshold: $('threshold'), steps: $('training-steps'), trainingTime: $('training-time'),
    detectionTime: $('detection-time'), samples: $('samples'), sampleCount: $('sample-count'),
    saveModel: $('save-model'), openModel: $('open-model'), modelFile: $('model-file'),
    startOver: $('start-over'), notice: $('notice'), dropOverlay: $('drop-overlay'),
  };

  // Everything the page knows. Boxes are [x, y, w, h] in picture pixels.
  const state = {
    pictures: [],          // {name, width, height, uploaded, taught}
    current: null,         // name of the picture shown
    marks: new Map(),      // picture name -> boxes the person marked
    undo: new Map(),       // picture name -> earlier states of its boxes
    boxSize: null,         // {fw, fh}: the learnt size as fractions of the picture's width and height
    selected: -1,          // index of the selected mark
    trained: false,
    training: false,
    detections: new Map(), // picture name -> last /api/detect reply
    detectSeq: 0,          // makes a late reply for an old picture or value harmless
    sliderBusy: false,
    sliderPending: null,   // {sensitivity, t0} waiting for the request in flight
    countsSeq: 0,
  };

  // Figures a person feels, kept for the browser test and shown where they matter.
  const metrics = window.studioMetrics = {
    trainClickToDrawnMs: null, sliderToDrawnMs: [], lastDetectionMs: null, lastTrainingMs: null,
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
  const postJson = (path, value) => api('POST', path, JSON.stringify(value));

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
    for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
    if (parent) parent.appendChild(element);
    return element;
  }

  const picture = (name) => state.pictures.find((p) => p.name === name);
  const marksOf = (name) => state.marks.get(name) || [];
  const anyMarks = () => [...state.marks.values()].some((boxes) => boxes.length > 0);

  function pictureUrl(name) { return '/api/pictures/' + encodeURIComponent(name); }

  // The confidence (in %) a box needs at a sensitivity: 90 at 0, 50 at 79
  // and 80, 30 at 100, as the library's header gives it.
  function confidenceNeeded(sensitivity) {
    return sensitivity < 80 ? Math.trunc(90 - sensitivity / 2) : 50 - (sensitivity - 80);
  }

  // ------------------------------------------------------------ box size
  function sizeFor(p) {
    if (!state.boxSize) return null;
    return {
      w: Math.max(MIN_BOX, Math.round(state.boxSize.fw * p.width)),
      h: Math.max(MIN_BOX, Math.round(state.boxSize.fh * p.height)),
    };
  }
  function setSizeFrom(p, w, h) { state.boxSize = { fw: w / p.width, fh: h / p.height }; }

  function clampBox(p, x, y, w, h) {
    w = Math.min(Math.max(1, Math.round(w)), p.width);
    h = Math.min(Math.max(1, Math.round(h)), p.height);
    x = Math.min(Math.max(0, Math.round(x)), p.width - w);
    y = Math.min(Math.max(0, Math.round(y)), p.height - h);
    return [x, y, w, h];
  }
  function centredBox(p, cx, cy, size) { return clampBox(p, cx - size.w / 2, cy - size.h / 2, size.w, size.h); }

  // ---------------------------------------------------------------- undo
  function remember() {
    const name = state.current;
    if (!state.undo.has(name)) state.undo.set(name, []);
    const stack = state.undo.get(name);
    stack.push({ boxes: marksOf(name).map((b) => b.slice()), size: state.boxSize && { ...state.boxSize } });
    if (stack.length > 200) stack.shift();
  }
  function undo() {
    const stack = state.undo.get(state.current);
    if (!stack || stack.length === 0) return;
    const earlier = stack.pop();
    state.marks.set(state.current, earlier.boxes);
    state.boxSize = earlier.size;
    state.selected = -1;
    renderMarks();
  }
  function forgetSizeIfUnused() {
    const taught = state.pictures.some((p) => p.taught && p.taught.length > 0);
    if (!anyMarks() && !taught) state.boxSize = null;
  }

  // ------------------------------------------------------------- drawing
  function renderMarks() {
    const p = picture(state.current);
    ui.marks.replaceChildren();
    if (!p) return;
    const boxes = marksOf(p.name);
    const stroke = Math.max(1.5, p.width / 320);
    const badge = Math.max(14, p.width / 40);
    boxes.forEach(([x, y, w, h], i) => {
      const selected = i === state.selected;
      svg('rect', { class: selected ? 'mark selected' : 'mark', x, y, width: w, height: h,
        'stroke-width': stroke, 'data-index': i }, ui.marks);
      svg('rect', { class: 'mark-number-bg', x, y, width: badge * 1.3, height: badge }, ui.marks);
      const number = svg('text', { class: 'mark-number', x: x + badge * 0.2, y: y + badge * 0.8,
        'font-size': badge * 0.75 }, ui.marks);
      number.textContent = String(i + 1);
      if (selected) {
        const r = Math.max(7, p.width / 90);
        svg('rect', { class: 'handle', x: x + w - r, y: y + h - r, width: 2 * r, height: 2 * r,
          'stroke-width': stroke, 'data-handle': i }, ui.marks);
        const del = svg('g', { class: 'delete-button', 'data-delete': i }, ui.marks);
        svg('circle', { cx: x + w, cy: y, r: r * 1.3, 'stroke-width': stroke, 'data-delete': i }, del);
        const k = r * 0.6;
        svg('path', { d: `M${x + w - k},${y - k}L${x + w + k},${y + k}M${x + w + k},${y - k}L${x + w - k},${y + k}`,
          'stroke-width': stroke * 1.2 }, del);
      }
    });
    updateControls();
  }

  function renderDetections() {
    const p = picture(state.current);
    ui.detections.replaceChildren();
    const reply = p && state.detections.get(p.name);
    if (!reply || !state.trained) {
      ui.foundCount.textContent = '';
      ui.canvas.dataset.found = '';
      return;
    }
    const stroke = Math.max(1.5, p.width / 300);
    const font = Math.max(11, p.width / 55);
    let found = 0;
    // Weak boxes first, so that the detections are drawn over them.
    const ordered = reply.boxes.filter((b) => b.label !== 1).concat(reply.boxes.filter((b) => b.label === 1));
    for (const b of ordered) {
      // The library also returns the marked boxes of its training picture
      // that nothing detected: label 1 with the score they were marked with, 0.
      const kind = b.label !== 1 ? 'weak' : (b.score <= 0 ? 'missed' : 'found');
      if (kind === 'found') found += 1;
      const group = svg('g', { class: 'det-group', 'data-kind': kind }, ui.detections);
      svg('rect', { class: kind === 'found' ? 'det' : 'det ' + kind, x: b.x, y: b.y, width: b.w, height: b.h,
        'stroke-width': kind === 'weak' ? stroke / 2 : stroke }, group);
      if (kind === 'weak') continue;
      const text = kind === 'missed' ? 'not found'
        : `${b.score.toFixed(2)} ${b.color_main_name}` + (b.color_second_name !== 'none' ? `/${b.color_second_name}` : '');
      const width = text.length * font * 0.56 + font * 0.5;
      const above = b.y - font * 1.25 >= 0;
      const top = above ? b.y - font * 1.25 : b.y;
      const left = Math.max(0, Math.min(b.x, p.width - width));  // the caption stays on the picture
      svg('rect', { class: kind === 'found' ? 'det-caption-bg' : 'det-caption-bg ' + kind,
        x: left, y: top, width, height: font * 1.25 }, group);
      const caption = svg('text', { class: 'det-caption', x: left + font * 0.25, y: top + font * 0.95,
        'font-size': font }, group);
      caption.textContent = text;
    }
    ui.foundCount.textContent = found === 1 ? '1 found' : `${found} found`;
    ui.canvas.dataset.found = String(found);
    ui.detectionTime.textContent = `${reply.ms.toFixed(1)} ms`;
  }

  function updateControls() {
    const p = picture(state.current);
    const boxes = p ? marksOf(p.name) : [];
    ui.train.disabled = !p || boxes.length === 0 || state.training;
    ui.train.textContent = state.training ? 'Training…' : 'Train';
    ui.train.classList.toggle('busy', state.training);
    ui.clearBoxes.disabled = boxes.length === 0;
    const stack = p && state.undo.get(p.name);
    ui.undo.disabled = !stack || stack.length === 0;
    ui.saveModel.setAttribute('aria-disabled', state.trained ? 'false' : 'true');
    ui.pictureName.textContent = p ? `${p.name} · ${p.width} × ${p.height}` : '';
    updateHint(p, boxes);
  }

  function updateHint(p, boxes) {
    let html;
    if (!p) {
      html = 'Add pictures: drop them on the page or press <strong>+ Add</strong>.';
    } else if (state.training) {
      html = 'Training… each pass tests the detector on your picture and learns from its mistakes.';
    } else if (!state.boxSize) {
      html = '<strong>Step 1.</strong> Drag a box around <em>one</em> object. Its size becomes the size the detector looks for.';
    } else if (boxes.length === 0 && state.trained) {
      html = 'Boxes show what the detector found. Wrong or missing finds? <strong>Click</strong> on each object here to mark it, then press <strong>Train</strong> to teach it more.';
    } else if (boxes.length === 0) {
      html = '<strong>Step 2.</strong> <strong>Click</strong> on each object of the same kind (or drag around it): a box of the learnt size appears.';
    } else {
      html = '<strong>Step 2.</strong> Click on <em>every</em> object of this kind in the picture: anything left unmarked is learnt as background. ' +
        'Drag a box to move it; select it to resize all boxes (corner) or delete it (×). <strong>Step 3.</strong> Press <strong>Train</strong>.';
    }
    ui.hint.innerHTML = html;
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
      const info = document.createElement('span');
      info.className = 'found';
      caption.append(name, info);
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
      const reply = state.detections.get(li.dataset.name);
      li.classList.toggle('selected', li.dataset.name === state.current);
      if (state.trained && reply) {
        const n = reply.boxes.filter((b) => b.label === 1 && b.score > 0).length;
        info.className = 'found';
        info.textContent = `${n} found`;
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
    if (!keepCurrent || !picture(state.current)) state.current = state.pictures.length ? state.pictures[0].name : null;
    renderStrip();
  }

  function openPicture(name) {
    const p = picture(name);
    if (!p) return;
    state.current = name;
    state.selected = -1;
    // Taught boxes come back as marks, so that training again keeps them.
    if (!state.marks.has(name) && p.taught && p.taught.length) state.marks.set(name, p.taught.map((b) => b.slice()));
    ui.picture.src = pictureUrl(name);
    ui.overlay.setAttribute('viewBox', `0 0 ${p.width} ${p.height}`);
    ui.detections.replaceChildren();
    ui.foundCount.textContent = '';
    ui.detectionTime.textContent = '–';
    renderMarks();
    updateStripInfo();
    if (state.trained) detectCurrent(Number(ui.sensitivity.value));
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
      const reply = await api('GET', `/api/detect?picture=${encodeURIComponent(name)}&sensitivity=${sensitivity}`);
      state.detections.set(name, reply);
      if (seq === state.detectSeq && name === state.current) {
        renderDetections();
        metrics.lastDetectionMs = reply.ms;
        updateStripInfo();
      }
      return reply;
    } catch (error) {
      if (error.status === 409) { state.trained = false; updateModelState(); }
      else notify(error.message, true);
      return null;
    }
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
        const reply = await api('GET', `/api/detect?picture=${encodeURIComponent(p.name)}&sensitivity=${sensitivity}`);
        if (seq !== state.countsSeq) return;
        state.detections.set(p.name, reply);
        updateStripInfo();
      } catch (error) {
        return;
      }
    }
  }

  function nextFrame() { return new Promise((resolve) => requestAnimationFrame(() => resolve())); }

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
    ui.threshold.textContent = String(confidenceNeeded(sensitivity));
  }

  // ----------------------------------------------------------- training
  function stepText(step) {
    if (step.pass === 0) {
      return `First training on ${step.picture}: ${step.samples} samples`;
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
    let lastRun = null;
    const poll = async () => {
      if (stopped) return;
      try {
        const progress = await api('GET', '/api/train/progress');
        if (!stopped && progress.running) {
          lastRun = progress.run;
          renderSteps(progress.steps, null, false);
        }
      } catch (error) { /* the training's own reply reports failures */ }
      if (!stopped) setTimeout(poll, PROGRESS_POLL_MS);
    };
    poll();
    return () => { stopped = true; return lastRun; };
  }

  async function train() {
    const p = picture(state.current);
    const boxes = p ? marksOf(p.name) : [];
    if (!p || boxes.length === 0 || state.training) return;
    const t0 = performance.now();
    state.training = true;
    updateControls();
    renderSteps([], 'Training…', false);
    const stopWatching = watchProgress();
    try {
      const reply = await postJson('/api/train', { picture: p.name, boxes });
      stopWatching();
      state.trained = true;
      const passes = reply.passes === 1 ? '1 pass' : `${reply.passes} passes`;
      renderSteps(reply.steps, `Trained in ${(reply.ms / 1000).toFixed(2)} s (${passes}); ${reply.samples} boxes learnt`, false);
      ui.trainingTime.textContent = `${(reply.ms / 1000).toFixed(2)} s`;
      metrics.lastTrainingMs = reply.ms;
      p.taught = boxes.map((b) => b.slice());
      state.detections.clear();
      state.training = false;
      updateModelState();
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
      img.title = s.picture ? `${s.picture}, box ${s.box.join(', ')}` : `sample ${s.index + 1}`;
      const remove = document.createElement('button');
      remove.type = 'button';
      remove.className = 'remove-sample';
      remove.title = 'Forget this sample and retrain';
      remove.setAttribute('aria-label', 'Remove sample ' + (s.index + 1));
      remove.textContent = '×';
      remove.addEventListener('click', () => removeSample(s, remove));
      li.append(img, remove);
      ui.samples.appendChild(li);
    }
  }

  async function removeSample(sample, button) {
    for (const b of ui.samples.querySelectorAll('button')) b.disabled = true;
    try {
      const reply = await api('DELETE', `/api/samples/${sample.index}`);
      // The box is no longer taught: take it off the picture's marks too.
      if (sample.picture) {
        const boxes = marksOf(sample.picture);
        const at = boxes.findIndex((b) => b.join(',') === sample.box.join(','));
        if (at >= 0) boxes.splice(at, 1);
        const p = picture(sample.picture);
        if (p && p.taught) {
          const t = p.taught.findIndex((b) => b.join(',') === sample.box.join(','));
          if (t >= 0) p.taught.splice(t, 1);
        }
      }
      state.trained = reply.trained;
      state.detections.clear();
      renderSteps([], `Sample removed; retrained in ${(reply.ms / 1000).toFixed(2)} s`, false);
      updateModelState();
      renderMarks();
      renderDetections();
      await detectCurrent(Number(ui.sensitivity.value));
      await loadSamples();
      refreshCounts();
    } catch (error) {
      notify(error.message, true);
      for (const b of ui.samples.querySelectorAll('button')) b.disabled = false;
    }
  }

  // -------------------------------------------------------------- model
  function updateModelState() {
    ui.modelState.dataset.trained = state.trained ? 'true' : 'false';
    ui.modelState.textContent = state.trained ? 'Detector ready' : 'Nothing learnt yet';
    ui.saveModel.setAttribute('aria-disabled', state.trained ? 'false' : 'true');
    if (!state.trained) {
      ui.detections.replaceChildren();
      ui.foundCount.textContent = '';
    }
    updateStripInfo();
  }

  async function openModel(file) {
    try {
      const status = await api('POST', '/api/model?name=' + encodeURIComponent(file.name), file,
        'application/octet-stream');
      state.trained = status.trained;
      for (const p of state.pictures) p.taught = [];
      state.detections.clear();
      renderSteps([], `Model ${file.name} loaded`, false);
      ui.trainingTime.textContent = '–';
      updateModelState();
      await detectCurrent(Number(ui.sensitivity.value));
      loadSamples();
      refreshCounts();
      notify(`Model ${file.name} loaded. Training again starts a new model from your boxes.`);
    } catch (error) {
      notify(`The model was not loaded: ${error.message}`, true);
      renderSteps([], `Model ${file.name} refused: ${error.message}`, true);
    }
  }

  async function startOver() {
    if (!window.confirm('Forget everything the detector learnt and all boxes?')) return;
    await postJson('/api/reset', {});
    state.trained = false;
    state.marks.clear();
    state.undo.clear();
    state.boxSize = null;
    state.detections.clear();
    for (const p of state.pictures) p.taught = [];
    renderSteps([], null, false);
    ui.steps.innerHTML = '<li class="muted">Not trained yet.</li>';
    ui.trainingTime.textContent = '–';
    ui.detectionTime.textContent = '–';
    updateModelState();
    renderMarks();
    loadSamples();
  }

  // ------------------------------------------------------ box editing
  function pointerToPicture(event) {
    const rect = ui.overlay.getBoundingClientRect();
    const p = picture(state.current);
    return {
      x: (event.clientX - rect.left) * p.width / rect.width,
      y: (event.clientY - rect.top) * p.height / rect.height,
      scale: p.width / rect.width,
    };
  }

  let drag = null;

  function onPointerDown(event) {
    const p = picture(state.current);
    if (!p || event.button !== 0 || state.training) return;
    const at = pointerToPicture(event);
    const target = event.target;
    const boxes = marksOf(p.name);
    ui.overlay.setPointerCapture(event.pointerId);
    event.preventDefault();
    if (target.dataset.delete !== undefined) {
      remember();
      boxes.splice(Number(target.dataset.delete), 1);
      state.marks.set(p.name, boxes);
      state.selected = -1;
      forgetSizeIfUnused();
      renderMarks();
      drag = null;
      return;
    }
    if (target.dataset.handle !== undefined) {
      const i = Number(target.dataset.handle);
      remember();
      drag = { kind: 'resize', index: i, original: boxes.map((b) => b.slice()), start: at, moved: false };
      return;
    }
    if (target.dataset.index !== undefined) {
      const i = Number(target.dataset.index);
      state.selected = i;
      remember();
      drag = { kind: 'move', index: i, original: boxes[i].slice(), start: at, moved: false };
      renderMarks();
      return;
    }
    state.selected = -1;
    drag = { kind: 'draw', start: at, moved: false };
    renderMarks();
  }

  function onPointerMove(event) {
    if (!drag) return;
    const p = picture(state.current);
    const at = pointerToPicture(event);
    const dx = at.x - drag.start.x;
    const dy = at.y - drag.start.y;
    if (!drag.moved && Math.hypot(dx, dy) / at.scale < CLICK_SLOP) return;
    drag.moved = true;
    const boxes = marksOf(p.name);
    if (drag.kind === 'move') {
      const [x, y, w, h] = drag.original;
      boxes[drag.index] = clampBox(p, x + dx, y + dy, w, h);
      renderMarks();
    } else if (drag.kind === 'resize') {
      // Every box takes the new size and keeps its centre.
      const [x, y] = drag.original[drag.index];
      const w = Math.max(MIN_BOX, at.x - x);
      const h = Math.max(MIN_BOX, at.y - y);
      const resized = drag.original.map(([bx, by, bw, bh]) => centredBox(p, bx + bw / 2, by + bh / 2, { w, h }));
      state.marks.set(p.name, resized);
      setSizeFrom(p, Math.round(w), Math.round(h));
      renderMarks();
    } else {
      const x = Math.min(drag.start.x, at.x);
      const y = Math.min(drag.start.y, at.y);
      ui.rubberBand.setAttribute('x', x);
      ui.rubberBand.setAttribute('y', y);
      ui.rubberBand.setAttribute('width', Math.abs(dx));
      ui.rubberBand.setAttribute('height', Math.abs(dy));
      ui.rubberBand.setAttribute('visible', 'true');
    }
  }

  function onPointerUp(event) {
    if (!drag) return;
    const p = picture(state.current);
    const at = pointerToPicture(event);
    const current = drag;
    drag = null;
    ui.rubberBand.setAttribute('visible', 'false');
    if (current.kind !== 'draw') {
      if (!current.moved) state.undo.get(p.name).pop();  // a plain click selects, nothing to undo
      renderMarks();
      return;
    }
    const boxes = marksOf(p.name).slice();
    let box;
    if (!current.moved) {
      const size = sizeFor(p);
      if (!size) { notify('Drag to draw your first box around one object.'); return; }
      box = centredBox(p, at.x, at.y, size);
    } else {
      const x0 = Math.max(0, Math.min(current.start.x, at.x));
      const y0 = Math.max(0, Math.min(current.start.y, at.y));
      const x1 = Math.min(p.width, Math.max(current.start.x, at.x));
      const y1 = Math.min(p.height, Math.max(current.start.y, at.y));
      if (x1 - x0 < MIN_BOX || y1 - y0 < MIN_BOX) { notify('That box is too small; drag a larger one.'); return; }
      const size = sizeFor(p);
      if (!size) {
        remember();
        setSizeFrom(p, Math.round(x1 - x0), Math.round(y1 - y0));
        box = clampBox(p, x0, y0, x1 - x0, y1 - y0);
        state.marks.set(p.name, boxes.concat([box]));
        state.selected = -1;
        renderMarks();
        return;
      }
      box = centredBox(p, (x0 + x1) / 2, (y0 + y1) / 2, size);
    }
    remember();
    state.marks.set(p.name, boxes.concat([box]));
    state.selected = -1;
    renderMarks();
  }

  function onKey(event) {
    if (event.target instanceof HTMLInputElement) return;
    if ((event.ctrlKey || event.metaKey) && event.key.toLowerCase() === 'z') {
      event.preventDefault();
      undo();
    } else if ((event.key === 'Delete' || event.key === 'Backspace') && state.selected >= 0) {
      event.preventDefault();
      remember();
      marksOf(state.current).splice(state.selected, 1);
      state.selected = -1;
      forgetSizeIfUnused();
      renderMarks();
    } else if (event.key === 'Escape') {
      state.selected = -1;
      renderMarks();
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
  async function start() {
    ui.overlay.addEventListener('pointerdown', onPointerDown);
    ui.overlay.addEventListener('pointermove', onPointerMove);
    ui.overlay.addEventListener('pointerup', onPointerUp);
    ui.overlay.addEventListener('pointercancel', () => { drag = null; ui.rubberBand.setAttribute('visible', 'false'); });
    document.addEventListener('keydown', onKey);
    ui.train.addEventListener('click', train);
    ui.undo.addEventListener('click', undo);
    ui.clearBoxes.addEventListener('click', () => {
      remember();
      state.marks.set(state.current, []);
      state.selected = -1;
      forgetSizeIfUnused();
      renderMarks();
    });
    ui.sensitivity.addEventListener('input', onSlider);
    ui.sensitivity.addEventListener('change', () => refreshCounts());
    ui.addPictures.addEventListener('click', () => ui.pictureFiles.click());
    ui.pictureFiles.addEventListener('change', () => {
      uploadPictures([...ui.pictureFiles.files]);
      ui.pictureFiles.value = '';
    });
    ui.openModel.addEventListener('click', () => ui.modelFile.click());
    ui.modelFile.addEventListener('change', () => {
      if (ui.modelFile.files.length) openModel(ui.modelFile.files[0]);
      ui.modelFile.value = '';
    });
    ui.startOver.addEventListener('click', startOver);
    setUpDrop();
    showSensitivity(Number(ui.sensitivity.value || DEFAULT_SENSITIVITY));

    try {
      const status = await api('GET', '/api/status');
      state.trained = status.trained;
      await loadPictures(false);
      if (status.box_size) {
        state.boxSize = { fw: status.box_size.w / status.box_size.picture_width,
          fh: status.box_size.h / status.box_size.picture_height };
      }
      updateModelState();
      if (state.current) openPicture(state.current);
      else updateControls();
      loadSamples();
      refreshCounts();
      document.body.dataset.ready = 'true';
    } catch (error) {
      notify('The studio does not answer: ' + error.message, true);
    }
  }

  start();
})();
