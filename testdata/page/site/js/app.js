// The sample application: counts what ran, in order.
var probe = window.probe || (window.probe = { order: [] });
probe.order.push('app.js');
var greeting = "Hello, " + 'world';
function twice(n) {
  return n * 2; // a comment with 'quotes' and "more"
}
probe.pattern = /a\/b/.test('a/b');
