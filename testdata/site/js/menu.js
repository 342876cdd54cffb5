/* The navigation menu: marks the current entry and counts the links. */
(function () {
  var items = document.querySelectorAll('#nav a');
  Site.menuLinks = items.length;
  for (var i = 0; i < items.length; i++) {
    if (items[i].getAttribute('href') === '#tides') items[i].className += ' current';
  }
  // Quotes of both kinds, a slash and a backslash must survive any escaping.
  Site.quotes = "it's \"here\" / \\ there";
  Site.lines = 'one\
two';
  __probe.mark('menu.js links=' + items.length);
})();
