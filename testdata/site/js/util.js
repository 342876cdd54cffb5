// Small helpers shared by the page's scripts.
var Site = Site || {};
Site.version = '2.4.1';
Site.format = function (template, values) {
  return template.replace(/\{(\w+)\}/g, function (all, key) {
    return key in values ? String(values[key]) : all;
  });
};
Site.el = function (id) { return document.getElementById(id); };
function siteLog(message) { Site.log = (Site.log || []).concat([message]); }
__probe.mark('util.js');
