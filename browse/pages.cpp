#include "pages.h"

#include <algorithm>
#include <memory>

#include "charts.h"
#include "html.h"
#include "window_maps.h"

namespace browse {

namespace {

constexpr std::string_view overview_script = R"js(
(function(){
  var table=document.getElementById('contigs'),body=table.tBodies[0],filter=document.getElementById('filter');
  var rows=Array.prototype.slice.call(body.rows),count=document.getElementById('shown');
  filter.addEventListener('input',function(){
    var q=filter.value.toLowerCase(),n=0;
    rows.forEach(function(r){var hit=r.cells[0].textContent.toLowerCase().indexOf(q)>=0;r.hidden=!hit;if(hit)n++;});
    count.textContent=n;
  });
  Array.prototype.forEach.call(table.tHead.rows[0].cells,function(th,col){
    th.addEventListener('click',function(){
      var up=!th.classList.contains('asc');
      Array.prototype.forEach.call(table.tHead.rows[0].cells,function(h){h.classList.remove('asc','desc');});
      th.classList.add(up?'asc':'desc');
      rows.sort(function(a,b){
        var x=a.cells[col].dataset.v,y=b.cells[col].dataset.v,c;
        if(col===0)c=x<y?-1:x>y?1:0;else c=Number(x)-Number(y);
        return up?c:-c;
      });
      rows.forEach(function(r){body.appendChild(r);});
    });
  });
})();
)js";

constexpr std::string_view contig_script = R"js(
(function(){
  var svg=document.querySelector('svg.depth');
  if(!svg)return;
  svg.addEventListener('click',function(e){
    var box=svg.getBoundingClientRect(),vb=svg.viewBox.baseVal;
    var x=(e.clientX-box.left)*vb.width/box.width-Number(svg.dataset.left);
    var L=Number(svg.dataset.columns),w=Number(svg.dataset.width);
    var col=Math.floor(x/Number(svg.dataset.plot)*L)+1;
    var from=Math.max(1,Math.min(col-Math.floor(w/2),L-w+1));
    location.href=svg.dataset.href+from;
  });
})();
)js";

response error_page(int status, std::string_view title, std::string_view message) {
    response r;
    r.status = status;
    std::string body = "<h1>";
    append_escaped(body, title);
    body += "</h1>\n<p class=\"error\">";
    append_escaped(body, message);
    body += "</p>\n<p><a href=\"/\">Back to the contigs</a></p>\n";
    r.body = page(title, body);
    return r;
}

bool ends_with(std::string_view s, std::string_view tail) {
    return s.size() > tail.size() && s.substr(s.size() - tail.size()) == tail;
}

// A whole number of at most nine digits.
bool parse_count(const std::string& text, std::int64_t& out) {
    if (text.empty() || text.size() > 9) return false;
    out = 0;
    for (char ch : text) {
        if (ch < '0' || ch > '9') return false;
        out = out * 10 + (ch - '0');
    }
    return true;
}

std::string contig_href(std::string_view name) {
    return "/contig/" + url_encoded(name);
}

std::string read_href(std::string_view name) {
    return "/read/" + url_encoded(name);
}

std::string window_href(std::string_view name, std::int64_t from, int width) {
    return contig_href(name) + "?from=" + std::to_string(from) +
           "&amp;width=" + std::to_string(width);
}

void read_link(std::string& out, std::string_view name) {
    out += "<a href=\"" + read_href(name) + "\">";
    append_escaped(out, name);
    out += "</a>";
}

// A map with its names beside it: one names line per map line.
void map_block(std::string& out, const drawn_map& m, std::string_view first_label,
               std::string_view css_class) {
    out += "<div class=\"map ";
    out += css_class;
    out += "\"><pre class=\"names\">";
    for (std::size_t i = 0; i < m.lines.size(); ++i) {
        if (i == 0) {
            out += "<b>";
            out += first_label;
            out += "</b>";
        }
        for (std::size_t k = 0; i < m.names.size() && k < m.names[i].size(); ++k) {
            if (k > 0) out += ' ';
            read_link(out, m.names[i][k]);
        }
        out += '\n';
    }
    out += "</pre><pre class=\"seq\">";
    for (const std::string& line : m.lines) {
        out += line;  // escaped: see window_maps.h
        out += '\n';
    }
    out += "</pre></div>\n";
}

void plain_block(std::string& out, const drawn_map& m, std::string_view title) {
    out += "# ";
    out += title;
    out += '\n';
    for (const std::string& line : m.lines) out += line + '\n';
    out += "# reads of each row above, one row a line\n";
    for (std::size_t i = 1; i < m.names.size(); ++i) {
        for (std::size_t k = 0; k < m.names[i].size(); ++k)
            out += (k > 0 ? " " : "") + m.names[i][k];
        out += '\n';
    }
}

void fact(std::string& out, std::string_view term, std::string_view html_value) {
    out += "<dt>";
    out += term;
    out += "</dt><dd>";
    out += html_value;
    out += "</dd>";
}

std::string file_name_for(std::string_view name) {
    std::string out;
    for (char ch : name)
        out += (std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-') ? ch : '_';
    return out.empty() ? "read" : out;
}

char tsv_char(char ch) {
    return ch == '\t' || ch == '\n' || ch == '\r' ? '?' : ch;
}

}  // namespace

window check_window(const window_query& q, std::int64_t columns) {
    window w;
    std::int64_t v = 0;
    if (q.width) {
        if (!parse_count(*q.width, v)) {
            w.error = "width must be a whole number of columns, not \"" + *q.width + "\"";
            return w;
        }
        if (v < 1 || v > max_width) {
            w.error = "width must be between 1 and " + std::to_string(max_width) + " columns";
            return w;
        }
        w.width = static_cast<int>(v);
    }
    if (q.from) {
        if (!parse_count(*q.from, v)) {
            w.error = "from must be a column number, not \"" + *q.from + "\"";
            return w;
        }
        if (v < 1) {
            w.error = "from must be at least 1";
            return w;
        }
        w.from = v;
    }
    if (w.from > columns) {
        w.error = "from " + std::to_string(w.from) + " lies past the contig's last column, " +
                  std::to_string(columns);
        return w;
    }
    w.last = std::min<std::int64_t>(w.from + w.width - 1, columns);
    return w;
}

response site::not_found(std::string_view what) const {
    return error_page(404, "Not found", what);
}

response site::overview() const {
    std::string b = "<h1>Assembly</h1>\n<dl class=\"facts\">";
    fact(b, "ACE file", escaped(ace.ace_path));
    for (const read_source::sff_file& f : sff.files)
        fact(b, "SFF file",
             escaped(f.path) + " (" + grouped(static_cast<std::int64_t>(f.reads)) + " reads)");
    if (sff.files.empty()) fact(b, "SFF files", "none");
    fact(b, "contigs", grouped(static_cast<std::int64_t>(ace.contigs.size())));
    fact(b, "reads placed", grouped(ace.reads_placed));
    fact(b, "reads found in the SFF files", grouped(ace.reads_found));
    fact(b, "consensus columns", grouped(ace.columns));
    b += "</dl>\n<h2>Contigs</h2>\n<p><label>Filter by name <input id=\"filter\" type=\"search\" "
         "placeholder=\"part of a name\"></label> <span class=\"note\"><span id=\"shown\">" +
         std::to_string(ace.contigs.size()) +
         "</span> shown; click a heading to sort</span></p>\n<table class=\"data\" id=\"contigs\">"
         "<thead><tr><th>name</th><th>columns</th><th>reads</th><th>reads found</th><th>min "
         "length</th><th>avg length</th><th>max length</th><th>layout "
         "rows</th></tr></thead>\n<tbody>\n";
    for (const contig_summary& s : ace.contigs) {
        b += "<tr><td data-v=\"";
        append_escaped(b, s.name);
        b += "\"><a href=\"" + contig_href(s.name) + "\">";
        append_escaped(b, s.name);
        b += "</a></td>";
        auto cell = [&b](double v, const std::string& shown) {
            b += "<td data-v=\"" + fixed(v, 2) + "\">" + shown + "</td>";
        };
        cell(s.columns, grouped(s.columns));
        cell(s.reads, grouped(s.reads));
        cell(s.found, grouped(s.found));
        cell(s.min_len, std::to_string(s.min_len));
        cell(s.avg_len, fixed(s.avg_len, 0));
        cell(s.max_len, std::to_string(s.max_len));
        cell(s.rows, grouped(s.rows));
        b += "</tr>\n";
    }
    b += "</tbody></table>\n";
    response r;
    r.body = page("Assembly", b, overview_script);
    return r;
}

response site::contig(std::string_view path_name, const window_query& q) const {
    std::string_view name = path_name;
    bool text = false;
    int index = ace.contig_index(name);
    if (index < 0 && ends_with(name, ".txt")) {
        name.remove_suffix(4);
        index = ace.contig_index(name);
        text = true;
    }
    if (index < 0) return not_found("There is no contig named \"" + std::string(path_name) + "\".");
    const contig_summary& s = ace.contigs[static_cast<std::size_t>(index)];

    const window w = check_window(q, s.columns);
    if (!w.error.empty()) {
        if (text) return {400, "text/plain; charset=utf-8", "Bad request: " + w.error + "\n", {}};
        return error_page(400, "Bad request", w.error);
    }
    assembly::load_result loaded;
    std::shared_ptr<built_contig> b = ace.load(static_cast<std::size_t>(index), loaded);
    if (b == nullptr)
        return error_page(
            500, "ACE file changed",
            "The ACE file is no longer the file read at start-up; restart the server.");

    const drawn_map flows = flow_map(*b, w.from, w.last, !text);
    const drawn_map align = align_map(*b, w.from, w.last, !text);
    const std::size_t shown_reads = [&] {
        std::size_t n = 0;
        for (const auto& row : align.names) n += row.size();
        return n;
    }();

    if (text) {
        response r;
        r.content_type = "text/plain; charset=utf-8";
        r.body = "# contig " + s.name + ", columns " + std::to_string(w.from) + " to " +
                 std::to_string(w.last) + " of " + std::to_string(s.columns) + ", " +
                 std::to_string(shown_reads) + " reads\n";
        plain_block(r.body, flows, "flow map");
        plain_block(r.body, align, "alignment map");
        return r;
    }

    const std::string from_s = grouped(w.from), last_s = grouped(w.last);
    std::string h = "<h1>Contig ";
    append_escaped(h, s.name);
    h += ", columns " + from_s + " to " + last_s + "</h1>\n<dl class=\"facts\">";
    fact(h, "columns", grouped(s.columns));
    fact(h, "reads", grouped(s.reads) + " (" + grouped(s.found) + " found in the SFF files)");
    fact(h, "read lengths",
         std::to_string(s.min_len) + " to " + std::to_string(s.max_len) + ", " +
             fixed(s.avg_len, 0) + " on average");
    fact(h, "layout rows", grouped(s.rows));
    h += "</dl>\n";
    h += depth_chart(*b, w.from, w.last, w.width,
                     contig_href(s.name) + "?width=" + std::to_string(w.width) + "&amp;from=");

    h += "<nav class=\"nav\">";
    if (w.from > 1)
        h += "<a rel=\"prev\" href=\"" +
             window_href(s.name, std::max<std::int64_t>(1, w.from - w.width), w.width) +
             "\">&#8592; previous " + std::to_string(w.width) + "</a>";
    else
        h += "<span class=\"off\">&#8592; previous " + std::to_string(w.width) + "</span>";
    if (w.from + w.width <= s.columns)
        h += "<a rel=\"next\" href=\"" + window_href(s.name, w.from + w.width, w.width) +
             "\">next " + std::to_string(w.width) + " &#8594;</a>";
    else
        h += "<span class=\"off\">next " + std::to_string(w.width) + " &#8594;</span>";
    h += "<span>width</span>";
    for (int width : {50, 100, 200, 500})
        h += "<a" + std::string(width == w.width ? " class=\"cur\"" : "") + " href=\"" +
             window_href(s.name, w.from, width) + "\">" + std::to_string(width) + "</a>";
    h += "<form method=\"get\" action=\"" + contig_href(s.name) +
         "\"><label>column <input name=\"from\" type=\"number\" min=\"1\" max=\"" +
         std::to_string(s.columns) + "\" value=\"" + std::to_string(w.from) +
         "\"></label><input type=\"hidden\" name=\"width\" value=\"" + std::to_string(w.width) +
         "\"> <button>go</button></form>";
    h += "<a href=\"" + contig_href(s.name) + ".txt?from=" + std::to_string(w.from) +
         "&amp;width=" + std::to_string(w.width) + "\">as text</a></nav>\n";

    h += "<p class=\"note\">Columns " + from_s + " to " + last_s + " are drawn (" +
         grouped(w.last - w.from + 1) + " columns), with every read that covers one of them: " +
         grouped(static_cast<std::int64_t>(shown_reads)) + " reads.";
    if (w.from + w.width - 1 > w.last)
        h += " The window of " + std::to_string(w.width) +
             " columns is cut at the contig's last column.";
    h += "</p>\n<h2>Alignment</h2>\n";
    map_block(h, align, "consensus", "align");
    h += "<h2>Flows</h2>\n<p class=\"note\">Each cell is the number of the read's bases a flow "
         "carries (A = 10, B = 11, ...); the first line is the flow-space consensus.</p>\n";
    map_block(h, flows, "flows", "flow");
    response r;
    r.body = page(s.name, h, contig_script);
    return r;
}

response site::read(std::string_view path_name) const {
    std::string_view name = path_name;
    enum { html, flows_tsv, bases_tsv } kind = html;
    auto known = [&](std::string_view n) {
        return ace.contig_of_read(n) >= 0 || sff.file_of(n) >= 0;
    };
    if (!known(name)) {
        if (ends_with(name, ".flows.tsv")) {
            name.remove_suffix(10);
            kind = flows_tsv;
        } else if (ends_with(name, ".bases.tsv")) {
            name.remove_suffix(10);
            kind = bases_tsv;
        }
        if (kind == html || !known(name))
            return not_found("There is no read named \"" + std::string(path_name) + "\".");
    }
    const std::string read_name(name);

    sff_record rec;
    const read_source::fetch_result fetched = sff.fetch(read_name, rec);
    if (kind != html) {
        if (fetched != read_source::fetch_result::ok)
            return not_found("No SFF record of read \"" + read_name + "\" can be read.");
        response r;
        r.content_type = "text/tab-separated-values; charset=utf-8";
        if (kind == flows_tsv) {
            r.attachment = file_name_for(read_name) + ".flows.tsv";
            r.body = "flow\tnucleotide\tvalue\n";
            for (std::size_t f = 0; f < rec.flowgram.size(); ++f)
                r.body += std::to_string(f) + '\t' +
                          tsv_char(f < rec.flow_chars.size() ? rec.flow_chars[f] : '?') + '\t' +
                          fixed(rec.flowgram[f] / 100.0, 2) + '\n';
        } else {
            r.attachment = file_name_for(read_name) + ".bases.tsv";
            r.body = "base\tnucleotide\tquality\tflow\tkept\n";
            for (std::size_t i = 0; i < rec.bases.size(); ++i) {
                const bool kept = static_cast<int>(i) + 1 >= rec.kept_first &&
                                  static_cast<int>(i) + 1 <= rec.kept_last;
                r.body += std::to_string(i + 1) + '\t' + tsv_char(rec.bases[i]) + '\t' +
                          std::to_string(rec.quality[i]) + '\t' +
                          std::to_string(rec.flow_of_base[i]) + '\t' + (kept ? "1" : "0") + '\n';
            }
        }
        return r;
    }

    std::string h = "<h1>Read ";
    append_escaped(h, read_name);
    h += "</h1>\n<h2>Placement</h2>\n";
    const int k = ace.contig_of_read(read_name);
    if (k < 0) {
        h += "<p>Not placed in any contig of the assembly.</p>\n";
    } else {
        const contig_summary& s = ace.contigs[static_cast<std::size_t>(k)];
        assembly::load_result loaded;
        std::shared_ptr<built_contig> b = ace.load(static_cast<std::size_t>(k), loaded);
        const READ* rd = nullptr;
        if (b != nullptr) {
            auto it = b->c.reads.find(read_name);
            if (it != b->c.reads.end()) rd = &it->second;
        }
        h += "<dl class=\"facts\">";
        if (rd == nullptr) {
            fact(h, "contig",
                 "<a href=\"" + contig_href(s.name) + "\">" + escaped(s.name) + "</a>");
            fact(h, "", "the ACE file changed since start-up; restart the server to see more");
        } else {
            const std::int64_t from = std::clamp<std::int64_t>(
                std::int64_t{rd->start} - 20, 1, std::max<std::int64_t>(s.columns, 1));
            fact(h, "contig",
                 "<a href=\"" + window_href(s.name, from, default_width) + "\">" + escaped(s.name) +
                     "</a>");
            fact(h, "start column", grouped(rd->start));
            fact(h, "length",
                 std::to_string(rd->length) + " columns (to column " +
                     grouped(std::int64_t{rd->start} + rd->length - 1) + ")");
            fact(h, "direction",
                 rd->uncomplemented != 0 ? "uncomplemented (U)" : "complemented (C)");
            fact(
                h, "alignment clip",
                std::to_string(rd->align_clip_start) + " to " + std::to_string(rd->align_clip_end));
        }
        h += "</dl>\n";
    }

    h += "<h2>SFF record</h2>\n";
    if (fetched == read_source::fetch_result::unknown) {
        h += "<p>No SFF file given to the server holds this read.</p>\n";
    } else if (fetched == read_source::fetch_result::file_changed) {
        h += "<p>The SFF file holding this read changed since start-up; restart the server.</p>\n";
    } else {
        h += "<dl class=\"facts\">";
        fact(h, "file", escaped(rec.file));
        fact(h, "bases",
             grouped(static_cast<std::int64_t>(rec.bases.size())) + ", kept " +
                 std::to_string(rec.kept_first) + " to " + std::to_string(rec.kept_last));
        fact(h, "clips",
             "quality " + std::to_string(rec.clip_qual_left) + " to " +
                 std::to_string(rec.clip_qual_right) + ", adapter " +
                 std::to_string(rec.clip_adapter_left) + " to " +
                 std::to_string(rec.clip_adapter_right) + " (0: not set)");
        fact(h, "flows",
             grouped(static_cast<std::int64_t>(rec.flowgram.size())) + ", key " +
                 std::to_string(rec.key_length) + " bases");
        fact(h, "download",
             "<a href=\"" + read_href(read_name + ".flows.tsv") +
                 "\">flowgram (TSV)</a> &middot; <a href=\"" + read_href(read_name + ".bases.tsv") +
                 "\">bases and qualities (TSV)</a>");
        h += "</dl>\n<h2>Quality of the kept bases</h2>\n" + quality_chart(rec);
        h += "<h2>Flowgram</h2>\n<p class=\"note\">Bars coloured by the flow's nucleotide "
             "(<font color=\"#d73027\">T</font> <font color=\"#1a9850\">A</font> "
             "<font color=\"#2166ac\">C</font> <font color=\"#444444\">G</font>); the shaded "
             "flows carry the key, the band below marks the flows of the kept bases.</p>\n" +
             flowgram_chart(rec);
    }
    response r;
    r.body = page(read_name, h);
    return r;
}

}  // namespace browse
