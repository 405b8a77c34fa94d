-- Filter for pandoc that makes a manual page of a page of docs/, as CMakeLists.txt calls it. Options and
-- messages become lists, tables fit 80 columns, and links name manual pages instead of files.

local path = require 'pandoc.path'
local this = tostring(PANDOC_WRITER_OPTIONS.variables.name)

-- The manual pages, by what they are made from, and in order.
local pages, order = {}, {}
for line in io.lines(path.join {path.directory(PANDOC_SCRIPT_FILE), 'pages'}) do
  local name, section, source = line:match('^([^#%s]+) (%d) %a+ (%S+)')
  if name then
    pages[source] = {name = name, section = section, heading = source:match('#(.*)')}
    table.insert(order, pages[source])
  end
end

-- Literal text: a hyphen is to be a minus that can be copied, and a quote the one that was written.
local function escape(text)
  local marks = {
    ['\\'] = '\\(rs', ['-'] = '\\-', ["'"] = '\\(aq', ['`'] = '\\(ga', ['^'] = '\\(ha', ['~'] = '\\(ti',
  }
  return (text:gsub("[\\%-'`^~]", marks))
end

local function literal(text) return pandoc.RawInline('man', '\\f[B]' .. escape(text) .. '\\f[R]') end
local function code(inline) return literal(inline.text) end

local function reference(page)
  return {literal(page.name), pandoc.Str('(' .. page.section .. ')')}
end

-- What a link leads to: another manual page, or a file beside the page; nothing for another place of
-- this page and for what is elsewhere.
local function target_of(link)
  local file = link.target:match('^[%w-]+%.md')
  local page = pages[link.target] or (file and pages[file])
  if page then return page.name ~= this and reference(page) or nil end
  return file and {pandoc.Str(file)}
end

-- "(see LINK)" becomes "(see NAME(SECTION))", and LINK in running text "LINK (NAME(SECTION))".
local function resolve_links(inlines)
  local result, depth = pandoc.Inlines {}, 0
  for _, inline in ipairs(inlines) do
    if inline.t == 'Str' then
      depth = depth + select(2, inline.text:gsub('%(', '')) - select(2, inline.text:gsub('%)', ''))
    end
    local target = inline.t == 'Link' and target_of(inline)
    if not target then
      result:extend(inline.t == 'Link' and inline.content or {inline})
    elseif depth > 0 or pandoc.utils.stringify(inline) == inline.target then
      result:extend(target)
    else
      result:extend(inline.content)
      result:extend {pandoc.Space(), pandoc.Str '('}
      result:extend(target)
      result:insert(pandoc.Str ')')
    end
  end
  return result
end

-- A terminal shows no pictures.
local function is_picture(block) return #block.content == 1 and block.content[1].t == 'Image' end

local function code_block(block)
  local text = ('\n' .. escape(block.text)):gsub('\n%.', '\n\\&.')
  return pandoc.RawBlock('man', '.RS 2\n.EX' .. text .. '\n.EE\n.RE')
end

local function width_of(cell, pattern)
  local width = 1
  for part in pandoc.utils.stringify(cell):gmatch(pattern) do width = math.max(width, utf8.len(part)) end
  return width
end

-- Each column is as wide as its longest word, and all share what is left of the 71 characters that a line
-- has in 80 columns.
local function column_widths(rows)
  local columns, left = {}, 71 - 2 * (#rows[1] - 1)
  for number in ipairs(rows[1]) do
    local column = {number = number, word = 1, whole = 1}
    for _, row in ipairs(rows) do
      column.word = math.max(column.word, width_of(row[number], '%S+'))
      column.whole = math.max(column.whole, width_of(row[number], '.+'))
    end
    columns[number] = column
    left = left - column.word
  end
  table.sort(columns, function(a, b) return a.whole - a.word < b.whole - b.word end)
  local widths = {}
  for index, column in ipairs(columns) do
    local more = math.min(column.whole - column.word, left // (#columns - index + 1))
    left = left - more
    widths[column.number] = column.word + more
  end
  return widths
end

local function line_of_table(row)
  local cells = {}
  for _, cell in ipairs(row) do
    local text = pandoc.write(pandoc.Pandoc(cell):walk {Code = code}, 'man')
    table.insert(cells, text == '' and '' or 'T{\n' .. text .. '\nT}')
  end
  return table.concat(cells, '@')
end

-- For tbl. Where only the first column has a heading, that stands above the whole.
local function columns_of_text(simple)
  local headings, rows = simple.headers, simple.rows
  local headed = false
  for number = 2, #headings do headed = headed or #headings[number] > 0 end
  local title = not headed and pandoc.utils.stringify(headings[1]) or ''
  local formats = {}
  for number, width in ipairs(column_widths(headed and {headings, table.unpack(rows)} or rows)) do
    formats[number] = 'lw(' .. width .. 'n)'
  end
  local lines = pandoc.List {'.TS', 'tab(@);'}
  if title ~= '' then lines:insert('l' .. (' s'):rep(#headings - 1)) end
  lines:insert(table.concat(formats, '2') .. '.')
  if headed then lines:extend {line_of_table(headings), '_'} end
  if title ~= '' then lines:extend {title, '_'} end
  lines:extend(rows:map(line_of_table))
  lines:insert '.TE'
  return pandoc.RawBlock('man', table.concat(lines, '\n'))
end

local function list_of_terms(simple)
  local items = {}
  for _, row in ipairs(simple.rows) do
    local text = row[#row]
    if #row == 3 and #row[2] > 0 then
      text[1].content:extend {pandoc.Str ' (default '}
      text[1].content:extend(row[2][1].content)
      text[1].content:insert(pandoc.Str ')')
    end
    table.insert(items, {row[1][1].content, {text}})
  end
  return pandoc.DefinitionList(items)
end

-- Options, and terms that are too long for a column of their own, become a list.
local function set_table(block)
  local simple = pandoc.utils.to_simple_table(block)
  local has_default = #simple.headers == 3 and pandoc.utils.stringify(simple.headers[2]) == 'Default'
  local long_terms = false
  for _, row in ipairs(simple.rows) do long_terms = long_terms or width_of(row[1], '.+') > 24 end
  if has_default or (#simple.headers == 2 and long_terms) then return list_of_terms(simple) end
  return columns_of_text(simple)
end

local function capitals(heading)
  return heading:walk {Str = function(word) return pandoc.Str(pandoc.text.upper(word.text)) end}
end

local function see_also(text)
  local references = pandoc.Inlines {}
  for _, page in ipairs(order) do
    if page.name ~= this then
      if #references > 0 then references:extend {pandoc.Str ',', pandoc.Space()} end
      references:extend(reference(page))
    end
  end
  local blocks = {pandoc.Header(1, 'SEE ALSO'), pandoc.Plain(references)}
  if text:match '%.md%f[%W]' then
    local place = 'Files whose names end in .md are in share/doc/jobmill/docs of the installation.'
    table.insert(blocks, pandoc.Para(place))
  end
  return blocks
end

-- The text above the first heading of the second level is the description; with `heading` what is
-- below that one as well, and nothing further.
local function select_blocks(doc)
  local blocks, heading, taken = pandoc.Blocks {pandoc.Header(1, 'DESCRIPTION')}, nil, true
  for _, page in ipairs(order) do
    if page.name == this then heading = page.heading end
  end
  for _, block in ipairs(doc.blocks) do
    if block.t ~= 'Header' then
      if taken then
        -- The macros of headings begin a paragraph themselves.
        if blocks[#blocks].t ~= 'Header' then
          if block.t == 'RawBlock' then blocks:insert(pandoc.RawBlock('man', '.PP')) end
        elseif block.t == 'Para' then
          block = pandoc.Plain(block.content)
        end
        blocks:insert(block)
      end
    elseif block.level > 1 then
      if heading and block.level == 2 then
        taken = block.identifier == heading
      elseif taken then
        block.level = block.level - 1
        blocks:insert(block.level == 1 and capitals(block) or block)
      end
    end
  end
  blocks:extend(see_also(pandoc.write(pandoc.Pandoc(blocks), 'man')))
  doc.blocks = blocks
  return doc
end

return {
  {Inlines = resolve_links},
  {Table = set_table},
  {Para = function(block) if is_picture(block) then return {} end end},
  {Code = code, CodeBlock = code_block},
  {Pandoc = select_blocks},
}
