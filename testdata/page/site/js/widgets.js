window.probe.order.push('widgets.js');
var widgetCount = twice(21);
var template = 'line one\
 continued';
