/* Probe for the browser comparison: records the order in which the page's
 * scripts and load events run, and on request a snapshot of what the page's
 * scripts can observe (new globals, the images' src, the visible text).
 * Load it first; scripts call __probe.mark('name') as they run. */
(function () {
  var baseline = {};
  Object.keys(window).forEach(function (k) { baseline[k] = true; });
  var probe = window.__probe = { order: [] };
  probe.mark = function (name) {
    probe.order.push(name + ' imgs=' + document.getElementsByTagName('img').length +
                     ' state=' + document.readyState);
  };
  document.addEventListener('DOMContentLoaded', function () { probe.mark('DOMContentLoaded'); });
  window.addEventListener('load', function () { probe.mark('load'); });

  function describe(value) {
    var kind = typeof value;
    if (value === null || kind === 'undefined') return String(value);
    if (kind === 'function') return 'function/' + value.length;
    if (kind !== 'object') return kind + ':' + String(value);
    if (value.nodeType) return 'node:' + value.nodeName;
    try { return 'object:' + JSON.stringify(value).slice(0, 300); }
    catch (e) { return 'object:' + Object.keys(value).sort().join(','); }
  }

  probe.snapshot = function () {
    var globals = {};
    Object.keys(window).forEach(function (k) {
      if (!baseline[k] && k !== '__probe') globals[k] = describe(window[k]);
    });
    var images = [];
    var list = document.getElementsByTagName('img');
    for (var i = 0; i < list.length; i++) {
      images.push({ src: list[i].getAttribute('src'), alt: list[i].getAttribute('alt'),
                    width: list[i].width, height: list[i].height });
    }
    var styled = {};
    var marked = document.querySelectorAll('[data-probe]');
    for (var j = 0; j < marked.length; j++) {
      var cs = getComputedStyle(marked[j]);
      styled[marked[j].getAttribute('data-probe')] =
          [cs.color, cs.backgroundColor, cs.fontSize, cs.fontWeight, cs.display,
           cs.marginTop, cs.paddingLeft, cs.width, cs.height].join(' ');
    }
    return { order: probe.order, globals: globals, images: images, styles: styled,
             title: document.title, text: document.body ? document.body.innerText : null };
  };
})();
