// ostrel studio: the picture view. Zoom and pan over a picture of any size.
//
// The picture is drawn on a canvas the size of the stage, at the screen's
// device pixel ratio, and only the part of the picture that is visible is
// drawn: a 1920 x 1080 frame zoomed to 400% costs what the stage shows, not
// 7680 x 4320 pixels. The boxes lie in an SVG overlay placed over the visible
// part of the picture whose viewBox is that part in picture pixels, so boxes
// and the pointer keep picture coordinates at every zoom.
//
// screen = picture * scale + offset, in CSS pixels relative to the stage.
'use strict';

window.StudioViewer = class StudioViewer {
  constructor({ stage, view, overlay, onViewChange }) {
    this.stage = stage;
    this.view = view;
    this.overlay = overlay;
    this.onViewChange = onViewChange || (() => {});
    this.context = view.getContext('2d');
    this.width = 0;               // the picture's size in picture pixels
    this.height = 0;
    this.source = null;           // an ImageBitmap (or the <img>) to draw from
    this.scale = 1;
    this.offsetX = 0;
    this.offsetY = 0;
    this.fitted = true;           // follows the stage's size until zoomed or panned
    this.frameRequested = false;
    this.changeTime = null;       // when the change being drawn was asked for
    this.lastDrawMs = null;       // the change asked for -> the frame drawn
    this.spaceHeld = false;
    this.pan = null;              // {pointerId, x, y} while panning
    this.touches = new Map();     // pointerId -> {x, y} of touching fingers
    this.pinch = null;
    this.movedAt = -Infinity;     // the last zoom or pan step
    this.settleTimer = null;
    new ResizeObserver(() => { if (this.fitted) this.fit(); else this.request(); }).observe(stage);
  }

  static get MIN_SCALE() { return 0.05; }
  static get MAX_SCALE() { return 32; }
  // How long after the last zoom or pan step the view counts as moving.
  static get SETTLE_MS() { return 200; }

  // A new picture: shown whole (fit). source is drawn once it is given.
  show(width, height, source) {
    this.width = width;
    this.height = height;
    this.source = source || null;
    this.fit();
  }
  setSource(source) { this.source = source; this.request(); }

  fitScale() {
    if (!this.width || !this.height) return 1;
    const w = this.stage.clientWidth;
    const h = this.stage.clientHeight;
    return Math.max(StudioViewer.MIN_SCALE, Math.min(w / this.width, h / this.height));
  }

  fit() {
    const s = this.fitScale();
    this.scale = s;
    this.offsetX = (this.stage.clientWidth - this.width * s) / 2;
    this.offsetY = (this.stage.clientHeight - this.height * s) / 2;
    this.fitted = true;
    this.request();
  }

  // 1:1 (one picture pixel on one CSS pixel) around the stage's centre.
  actualSize() {
    this.zoomTo(1, this.stage.clientWidth / 2, this.stage.clientHeight / 2);
  }

  // Fit, or 1:1 when the picture is fitted already.
  toggleFit() {
    if (this.fitted && Math.abs(this.scale - 1) > 1e-6) this.actualSize();
    else this.fit();
  }

  // Zooms so that the picture point under (sx, sy) stays there.
  zoomTo(scale, sx, sy) {
    const lowest = Math.max(StudioViewer.MIN_SCALE, Math.min(1, this.fitScale()) / 2);
    const s = Math.min(StudioViewer.MAX_SCALE, Math.max(lowest, scale));
    const px = (sx - this.offsetX) / this.scale;
    const py = (sy - this.offsetY) / this.scale;
    this.scale = s;
    this.offsetX = sx - px * s;
    this.offsetY = sy - py * s;
    this.fitted = false;
    this.keepInView();
    this.moved();
  }
  zoomBy(factor, sx, sy) {
    if (sx === undefined) { sx = this.stage.clientWidth / 2; sy = this.stage.clientHeight / 2; }
    this.zoomTo(this.scale * factor, sx, sy);
  }

  panBy(dx, dy) {
    this.offsetX += dx;
    this.offsetY += dy;
    this.fitted = false;
    this.keepInView();
    this.moved();
  }

  // At least a quarter of the stage keeps showing the picture.
  keepInView() {
    const w = this.stage.clientWidth;
    const h = this.stage.clientHeight;
    const pw = this.width * this.scale;
    const ph = this.height * this.scale;
    const marginX = Math.min(pw, w) * 0.25;
    const marginY = Math.min(ph, h) * 0.25;
    this.offsetX = Math.min(w - marginX, Math.max(marginX - pw, this.offsetX));
    this.offsetY = Math.min(h - marginY, Math.max(marginY - ph, this.offsetY));
  }

  // Picture pixels of a pointer event (client coordinates).
  toPicture(clientX, clientY) {
    const r = this.stage.getBoundingClientRect();
    return { x: (clientX - r.left - this.offsetX) / this.scale, y: (clientY - r.top - this.offsetY) / this.scale };
  }
  // The stage's point of client coordinates.
  toStage(clientX, clientY) {
    const r = this.stage.getBoundingClientRect();
    return { x: clientX - r.left, y: clientY - r.top };
  }

  // The part of the picture the stage shows, in picture pixels.
  visible() {
    const w = this.stage.clientWidth;
    const h = this.stage.clientHeight;
    const x0 = Math.max(0, -this.offsetX / this.scale);
    const y0 = Math.max(0, -this.offsetY / this.scale);
    const x1 = Math.min(this.width, (w - this.offsetX) / this.scale);
    const y1 = Math.min(this.height, (h - this.offsetY) / this.scale);
    return { x0, y0, x1, y1, empty: x1 <= x0 || y1 <= y0 };
  }

  moved() {
    this.movedAt = performance.now();
    this.request();
  }

  // The frame with the best filter, once the view has stood still; it is
  // no zoom step's frame, so it is not timed as one.
  settleLater() {
    clearTimeout(this.settleTimer);
    this.settleTimer = setTimeout(() => {
      if (performance.now() - this.movedAt < StudioViewer.SETTLE_MS) { this.settleLater(); return; }
      if (!this.frameRequested) requestAnimationFrame(() => { if (!this.frameRequested) this.draw(); });
    }, StudioViewer.SETTLE_MS);
  }

  request(changeTime) {
    if (this.changeTime === null) this.changeTime = changeTime === undefined ? performance.now() : changeTime;
    if (this.frameRequested) return;
    this.frameRequested = true;
    requestAnimationFrame(() => {
      this.frameRequested = false;
      this.draw();
      this.lastDrawMs = performance.now() - this.changeTime;
      this.changeTime = null;
    });
  }

  draw() {
    const ratio = window.devicePixelRatio || 1;
    const w = this.stage.clientWidth;
    const h = this.stage.clientHeight;
    const cw = Math.round(w * ratio);
    const ch = Math.round(h * ratio);
    if (this.view.width !== cw || this.view.height !== ch) {
      this.view.width = cw;
      this.view.height = ch;
      this.view.style.width = w + 'px';
      this.view.style.height = h + 'px';
    }
    const g = this.context;
    g.setTransform(1, 0, 0, 1, 0, 0);
    g.clearRect(0, 0, cw, ch);
    const v = this.visible();
    if (!v.empty && this.source) {
      // Whole source pixels around the visible part, drawn where they fall.
      const sx0 = Math.floor(v.x0);
      const sy0 = Math.floor(v.y0);
      const sx1 = Math.min(this.width, Math.ceil(v.x1));
      const sy1 = Math.min(this.height, Math.ceil(v.y1));
      const s = this.scale * ratio;
      // Enlarged far enough, pixels are shown as the squares they are; smaller,
      // they are resampled smoothly.
      // While the view moves, pixels are resampled the cheap way (bilinear);
      // the best filter costs several times as much to paint at a device
      // pixel ratio of 2, and only shows when the view stands still, so a
      // frame with it follows once the view has settled.
      const moving = performance.now() - this.movedAt < StudioViewer.SETTLE_MS;
      g.imageSmoothingEnabled = s < 3;
      g.imageSmoothingQuality = moving ? 'low' : 'high';
      if (moving) this.settleLater();
      g.drawImage(this.source, sx0, sy0, sx1 - sx0, sy1 - sy0,
        (this.offsetX + sx0 * this.scale) * ratio, (this.offsetY + sy0 * this.scale) * ratio,
        (sx1 - sx0) * s, (sy1 - sy0) * s);
    }
    this.placeOverlay(v, w, h);
    this.onViewChange(this);
  }

  // The overlay covers the visible part of the picture, and its viewBox is
  // that part in picture pixels.
  placeOverlay(v, w, h) {
    const o = this.overlay;
    if (v.empty) { o.style.display = 'none'; return; }
    const left = Math.max(0, this.offsetX);
    const top = Math.max(0, this.offsetY);
    const right = Math.min(w, this.offsetX + this.width * this.scale);
    const bottom = Math.min(h, this.offsetY + this.height * this.scale);
    o.style.display = '';
    o.style.left = left + 'px';
    o.style.top = top + 'px';
    o.style.width = (right - left) + 'px';
    o.style.height = (bottom - top) + 'px';
    o.setAttribute('viewBox', `${(left - this.offsetX) / this.scale} ${(top - this.offsetY) / this.scale} ` +
      `${(right - left) / this.scale} ${(bottom - top) / this.scale}`);
  }

  // ------------------------------------------------------------ gestures
  // Wheel and pinch (Chromium reports a touchpad pinch as a wheel with Ctrl)
  // zoom around the pointer; dragging with the middle button, or with the
  // left one while Space is held, pans; two fingers pinch and pan.
  attach() {
    const stage = this.stage;
    stage.addEventListener('wheel', (event) => {
      event.preventDefault();
      const unit = event.deltaMode === 1 ? 16 : (event.deltaMode === 2 ? 400 : 1);
      const dy = event.deltaY * unit;
      const p = this.toStage(event.clientX, event.clientY);
      this.changeTime = performance.now();
      this.zoomBy(Math.exp(-dy * (event.ctrlKey ? 0.01 : 0.002)), p.x, p.y);
    }, { passive: false });
    stage.addEventListener('pointerdown', (event) => {
      if (event.pointerType === 'touch') {
        this.touches.set(event.pointerId, this.toStage(event.clientX, event.clientY));
        if (this.touches.size === 2) { this.startPinch(); event.stopImmediatePropagation(); }
        return;
      }
      if (event.button === 1 || (event.button === 0 && this.spaceHeld)) {
        event.preventDefault();
        event.stopImmediatePropagation();
        stage.setPointerCapture(event.pointerId);
        this.pan = { pointerId: event.pointerId, x: event.clientX, y: event.clientY };
        stage.classList.add('panning');
      }
    }, true);
    stage.addEventListener('pointermove', (event) => {
      if (this.touches.has(event.pointerId)) {
        this.touches.set(event.pointerId, this.toStage(event.clientX, event.clientY));
        if (this.pinch) { this.movePinch(); event.stopImmediatePropagation(); }
        return;
      }
      if (this.pan && event.pointerId === this.pan.pointerId) {
        event.stopImmediatePropagation();
        this.panBy(event.clientX - this.pan.x, event.clientY - this.pan.y);
        this.pan.x = event.clientX;
        this.pan.y = event.clientY;
      }
    }, true);
    const end = (event) => {
      if (this.touches.delete(event.pointerId) && this.pinch) {
        this.pinch = null;
        event.stopImmediatePropagation();
      }
      if (this.pan && event.pointerId === this.pan.pointerId) {
        event.stopImmediatePropagation();
        this.pan = null;
        stage.classList.remove('panning');
      }
    };
    stage.addEventListener('pointerup', end, true);
    stage.addEventListener('pointercancel', end, true);
    stage.addEventListener('auxclick', (event) => { if (event.button === 1) event.preventDefault(); });
    stage.addEventListener('mousedown', (event) => { if (event.button === 1) event.preventDefault(); });
  }

  setSpaceHeld(held) {
    this.spaceHeld = held;
    this.stage.classList.toggle('pan-ready', held);
  }

  pinchGeometry() {
    const [a, b] = [...this.touches.values()];
    return { x: (a.x + b.x) / 2, y: (a.y + b.y) / 2, d: Math.max(1, Math.hypot(a.x - b.x, a.y - b.y)) };
  }
  startPinch() { this.pinch = this.pinchGeometry(); }
  movePinch() {
    const now = this.pinchGeometry();
    this.panBy(now.x - this.pinch.x, now.y - this.pinch.y);
    this.zoomBy(now.d / this.pinch.d, now.x, now.y);
    this.pinch = now;
  }
};
