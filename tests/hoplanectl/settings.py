import tool
tool.main()
