#include "page/script_text.h"

#include <charconv>

namespace zelvarpack::page {

namespace {

constexpr std::string_view kVariablePrefix = "zp_C115BF0C_4E62_4D27_8890_9F0B5AF5D14F_";

std::string Decimal(std::int32_t number) {
  char text[16];
  const auto result = std::to_chars(text, text + sizeof text, number);
  return std::string(text, result.ptr);
}

}  // namespace

std::string ScriptVariableName(std::int32_t number) {
  return std::string(kVariablePrefix) + Decimal(number);
}

std::string ScriptVariableOpening(std::int32_t number) {
  return "var " + ScriptVariableName(number) + " = '";
}

std::string ScriptEvalCall(std::int32_t number) {
  return "eval(" + ScriptVariableName(number) + ");";
}

void AppendEscapedScript(std::string& out, std::string_view text) {
  std::size_t run = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char* replacement = nullptr;
    switch (text[i]) {
      case '\'':
        replacement = "\\'";
        break;
      case '\\':
        replacement = "\\\\";
        break;
      case '/':
        replacement = "\\/";
        break;
      case '\n':
        replacement = "\\n";
        break;
      case '\r':
        replacement = "\\r";
        break;
      default:
        continue;
    }
    out.append(text.data() + run, i - run);
    out += replacement;
    run = i + 1;
  }
  out.append(text.data() + run, text.size() - run);
}

const std::string_view kLazyImageScript =
    "if(document.addEventListener){document.addEventListener('DOMContentLoaded',"
    "zp_2F50498C_8605_468F_991E_AEABAA95E643_0,false);}else "
    "if(document.attachEvent){document.attachEvent('onreadystatechange',"
    "zp_2F50498C_8605_468F_991E_AEABAA95E643_0);}function "
    "zp_2F50498C_8605_468F_991E_AEABAA95E643_0(){if(!document.addEventListener&&document."
    "readyState!='complete'){return;}var images=document.getElementsByTagName('img');if "
    "(!images||!images.length){return;}for (var i=0;i<images.length;i++){var "
    "image=images[i];if(!image.getAttribute('zp_2F50498C_8605_468F_991E_AEABAA95E643')){"
    "continue;}image._getAttribute=image.getAttribute;image.getAttribute=function(name){if("
    "name.toLowerCase()=='src'&&this._getAttribute('zp_2F50498C_8605_468F_991E_AEABAA95E643')!"
    "=''){this._setAttribute('src',this._getAttribute('zp_2F50498C_8605_468F_991E_"
    "AEABAA95E643'));this._setAttribute('zp_2F50498C_8605_468F_991E_AEABAA95E643','');}"
    "return this._getAttribute.apply(this,arguments);};image._setAttribute=image.setAttribute;"
    "image.setAttribute=function(name,value){if(name.toLowerCase()=='src'&&this._getAttribute('"
    "zp_2F50498C_8605_468F_991E_AEABAA95E643')!=''){this._setAttribute('zp_2F50498C_8605_468F_"
    "991E_AEABAA95E643','');this.style.background='';}this._setAttribute.apply(this,arguments);}"
    ";Object.defineProperty(image,'src',{get:function(){return "
    "this.getAttribute('src');},set:function(value){this.setAttribute('src',value);}});}}";

}  // namespace zelvarpack::page
