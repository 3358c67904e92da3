-- SPDX-License-Identifier: MIT
-- Makes links between the files of the source tree links between the pages of the site. A link to
-- a file that has no page becomes plain text; one to a file that is not there ends the run.
-- Runs in the root of the source tree; the metadata "source" is the page's own file, "root" leads
-- from the page to the site's index, "here" is the page's own address in the site.

local source, root, here, contents

local function page_of(path)
  if path == 'README.md' then
    return 'index.html'
  elseif path == 'LICENSE' then
    return 'license.html'
  end
  local document = path:match('^docs/([^/]+)%.md$')
  local project = path:match('^([A-Z]+)%.md$')
  local manual = path:match('^docs/man/([^/]+%.%d)$')
  local header = path:match('^facade/([^/]+)%.h$') or path:match('^worker/([^/]+)%.h$')
    or path:match('^watcher/([^/]+)%.h$')
  if document then
    return document .. '.html'
  elseif project then
    return project:lower() .. '.html'
  elseif manual then
    return 'man/' .. manual .. '.html'
  elseif header and not header:match('_p$') then
    return 'api/' .. header .. '_8h_source.html'
  end
  return path:match('^docs/(pictures/.+)$')
end

-- The file as named from the root of the tree.
local function normal(path)
  local parts = {}
  for part in path:gmatch('[^/]+') do
    if part == '..' and #parts > 0 then
      table.remove(parts)
    elseif part ~= '.' then
      table.insert(parts, part)
    end
  end
  return table.concat(parts, '/')
end

local function exists(path)
  local file = io.open(path)
  return file ~= nil and file:close()
end

-- The target in the site; nil if it has no page there.
local function target_of(target)
  if target:match('^%a[%w+.-]*:') or target:match('^#') then
    return target
  end
  local file, anchor = target:match('^([^#]*)(.*)$')
  local path = normal((source:match('^(.*/)') or '') .. file)
  if not exists(path) then
    error(source .. ': the link leads to ' .. target .. ', which is not there')
  end
  local page = page_of(path)
  return page and root .. page .. anchor
end

local function bare(attribute)
  return (attribute:gsub("'", ''))
end

local function title_of(document)
  for _, block in ipairs(document.blocks) do
    if block.t == 'Header' and block.level == 1 then
      return pandoc.utils.stringify(block)
    end
  end
  return here
end

local convert = {
  traverse = 'topdown',
  Link = function(link)
    local target = target_of(link.target)
    if not target then
      return link.content, false
    end
    link.target = target
    return link, false
  end,
  Image = function(image)
    image.src = target_of(image.src) or error(source .. ': ' .. image.src .. ' has no place')
    return image
  end,
  -- A file that is only named leads to its page too.
  Code = function(code)
    local page = exists(code.text) and page_of(code.text)
    if page and page ~= here then
      return pandoc.Link(code, root .. page), false
    end
  end,
  -- A manual page, in which mandoc marks what has no page here.
  RawBlock = function(raw)
    -- Not every program takes an apostrophe in an address.
    raw.text = raw.text:gsub('id="[^"]*"', bare):gsub('href="#[^"]*"', bare)
    local list = {}
    for level, id, title in raw.text:gmatch('<h([12]) class="S[hs]" id="([^"]+)"><a[^>]*>(.-)</a>') do
      table.insert(list, ('<li class="level%s"><a href="#%s">%s</a></li>'):format(level, id, title))
    end
    if #list > 0 then
      contents = pandoc.MetaBlocks({
        pandoc.RawBlock('html', '<ul>\n' .. table.concat(list, '\n') .. '\n</ul>')
      })
    end
    raw.text = raw.text:gsub('<a class="Xr" href="none:[^"]*">(.-)</a>', '<b>%1</b>')
    return raw
  end,
}

function Pandoc(document)
  local meta = document.meta
  source = pandoc.utils.stringify(meta.source)
  root = pandoc.utils.stringify(meta.root or '')
  here = pandoc.utils.stringify(meta.here)
  if not meta.pagetitle then
    meta.pagetitle = title_of(document)
  end
  for _, group in ipairs(meta.groups) do
    for _, page in ipairs(group.pages) do
      page.here = pandoc.utils.stringify(page.url) == here
    end
  end
  document = document:walk(convert)
  document.meta.contents = contents
  return document
end
