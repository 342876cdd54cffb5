/* The page's main script: fills the tide table and the status line. */
var tideRows = [
  { high: '06:12', low: '12:31', height: 4.2 },
  { high: '18:40', low: '00:55', height: 3.9 }
];
function fillTides() {
  var body = Site.el('tide-body');
  for (var i = 0; i < tideRows.length; i++) {
    var row = document.createElement('tr');
    row.innerHTML = Site.format('<td>{high}</td><td>{low}</td><td>{height} m</td>', tideRows[i]);
    body.appendChild(row);
  }
  siteLog('tides ' + tideRows.length);
}
fillTides();
document.addEventListener('DOMContentLoaded', function () {
  Site.el('status').textContent = 'Updated by script ' + Site.version + ', ' +
      document.images.length + ' pictures.';
  __probe.mark('app.js DOMContentLoaded');
});
var regexCheck = /'[^']*'|"[^"]*"/g.test("say 'hi'") && 10 / 2 / 5 === 1;
__probe.mark('app.js');
